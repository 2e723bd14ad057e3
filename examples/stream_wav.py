#!/usr/bin/env python3
"""A minimal kerrow host: streams a WAV file into a live session and prints
what kerrow says as it arrives.

It does what a desktop host does with a microphone: starts kerrow with the
audio pipe on descriptor 3, waits for "ready", sends "start" and waits for
kerrow to take the capture up, writes 16-bit PCM
in 100 ms chunks at the pace of real time, sends "stop", waits for the
capture's last result, then sends "quit" and waits for the process to end.

    stream_wav.py [--speed X] [--kerrow PATH] FILE.wav -- KERROW_ARGS...

Only the Python standard library is used.
"""

import argparse
import json
import os
import queue
import subprocess
import sys
import threading
import time
import wave

AUDIO_FD = 3
SAMPLE_RATE = 16000
CHUNK_SECONDS = 0.1
# With --manual-realtime kerrow writes no marker after a capture's last
# result, so the host also stops waiting once kerrow has been quiet this long.
QUIET_SECONDS = 3.0
# Whatever the speed, the file's last second is written at real-time pace.
END_AT_REAL_TIME_SECONDS = 1.0
READY_TIMEOUT_SECONDS = 120.0


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--kerrow", default="kerrow", help="the kerrow executable")
    parser.add_argument("--speed", type=float, default=1.0,
                        help="play X times faster than real time (0: as fast as the pipe takes it); "
                             "the last second always plays in real time")
    parser.add_argument("wav", help="16 kHz mono 16-bit WAV file")
    parser.add_argument("kerrow_args", nargs=argparse.REMAINDER,
                        help="after --: kerrow's own options (models, modes)")
    arguments = parser.parse_args()
    if arguments.kerrow_args[:1] == ["--"]:
        arguments.kerrow_args = arguments.kerrow_args[1:]
    return arguments


def read_pcm(path):
    with wave.open(path, "rb") as wav:
        if (wav.getframerate(), wav.getnchannels(), wav.getsampwidth()) != (SAMPLE_RATE, 1, 2):
            sys.exit(f"{path}: kerrow takes 16 kHz mono 16-bit audio")
        return wav.readframes(wav.getnframes())


def start_kerrow(executable, kerrow_args):
    """Starts kerrow with the read end of a pipe as its descriptor 3."""
    read_end, write_end = os.pipe()

    def become_audio_descriptor():
        # Python opens descriptors close-on-exec; dup2 makes an inheritable
        # copy, but does nothing when the pipe already has the number 3.
        if read_end == AUDIO_FD:
            os.set_inheritable(AUDIO_FD, True)
        else:
            os.dup2(read_end, AUDIO_FD)

    process = subprocess.Popen(
        [executable] + kerrow_args,
        stdin=subprocess.PIPE, stdout=subprocess.PIPE, close_fds=False,
        preexec_fn=become_audio_descriptor, text=True, encoding="utf-8", bufsize=1)
    os.close(read_end)
    return process, os.fdopen(write_end, "wb", buffering=0)


def read_events(stdout, events):
    for line in stdout:
        events.put(json.loads(line))
    events.put(None)  # kerrow closed its standard output


class Session:
    def __init__(self, process, events):
        self.process = process
        self.events = events
        self.last_partial_segment = 0
        self.last_result_segment = 0
        self.captures = 0

    def send(self, command):
        self.process.stdin.write(command + "\n")
        self.process.stdin.flush()

    def start_capture(self):
        """Sends "start" and waits until kerrow has taken the new capture up.

        On taking up a "start", kerrow empties the captured audio and drops
        the PCM bytes it has read but not yet used, so audio meant for the new
        capture is written only after all three take-up lines: the capture
        started, the carry-over cleared and the session reset.
        """
        self.captures += 1
        pending = {"Capture started",
                   "[SESSION-DIAG] pcm-pending-cleared ",
                   f"[SESSION-DIAG] session-reset-consumed seq={self.captures} "}

        def taken_up(event):
            message = event.get("message", "")
            for prefix in list(pending):
                if event.get("type") == "log" and message.startswith(prefix):
                    pending.discard(prefix)
            return not pending

        self.send("start")
        if not self.wait_for(taken_up, READY_TIMEOUT_SECONDS):
            sys.exit("kerrow did not take up the capture")

    def show(self, event):
        kind = event.get("type")
        if kind == "first-pass":
            self.last_partial_segment = max(self.last_partial_segment, event["segment_id"])
            print(f"partial     [{event['segment_id']}] {event['text']}", flush=True)
        elif kind == "punctuated":
            print(f"punctuated  [{event['segment_id']}] {event['text']}", flush=True)
        elif kind == "result":
            self.last_result_segment = max(self.last_result_segment, event.get("segment_id", 0))
            text = " ".join(segment["text"] for segment in event["segments"])
            print(f"result      [{event.get('segment_start_id', '-')}-{event.get('segment_id', '-')}] {text}",
                  flush=True)
        elif kind == "ready":
            print("ready", flush=True)
        elif kind == "error":
            print(f"error       {event['message']}", flush=True)
        elif kind == "complete":
            print(f"complete    {event['message']}", flush=True)

    def drain(self):
        """Shows every event already received; False once kerrow has closed stdout."""
        while True:
            try:
                event = self.events.get_nowait()
            except queue.Empty:
                return True
            if event is None:
                return False
            self.show(event)

    def wait_for(self, done, timeout):
        """Shows events until done(event) holds; False after timeout seconds of quiet."""
        while True:
            try:
                event = self.events.get(timeout=timeout)
            except queue.Empty:
                return False
            if event is None:
                return False
            self.show(event)
            if done(event):
                return True


def stream(session, audio, pcm, speed):
    """Writes the PCM in chunks, paced by speed, and its last second in real time.

    A capture ends with the audio kerrow has read when it takes "stop" up;
    what is still in the pipe then is left out. Played faster than real time,
    the pipe may hold seconds of audio, so the end is played at the pace of a
    microphone, which gives kerrow the time to read what came before it.
    """
    chunk_bytes = int(SAMPLE_RATE * CHUNK_SECONDS) * 2
    real_time_from = len(pcm) - int(SAMPLE_RATE * END_AT_REAL_TIME_SECONDS) * 2
    due = time.monotonic()
    for offset in range(0, len(pcm), chunk_bytes):
        audio.write(pcm[offset:offset + chunk_bytes])
        session.drain()
        pace = 1.0 if offset >= real_time_from else speed
        if pace > 0:
            due += CHUNK_SECONDS / pace
            time.sleep(max(0.0, due - time.monotonic()))
        else:
            due = time.monotonic()


def main():
    arguments = parse_arguments()
    pcm = read_pcm(arguments.wav)
    process, audio = start_kerrow(arguments.kerrow, arguments.kerrow_args)
    events = queue.Queue()
    threading.Thread(target=read_events, args=(process.stdout, events), daemon=True).start()
    session = Session(process, events)

    if not session.wait_for(lambda event: event.get("type") == "ready", READY_TIMEOUT_SECONDS):
        audio.close()
        sys.exit(f"kerrow ended before it was ready (status {process.wait()})")
    session.start_capture()
    stream(session, audio, pcm, arguments.speed)

    # "quit" decodes nothing: the last utterance's text comes only after "stop".
    session.send("stop")
    session.wait_for(lambda event: event.get("type") == "result"
                     and session.last_result_segment >= session.last_partial_segment,
                     QUIET_SECONDS)
    # A "stop" that decodes on the spot (--manual-mode alone) may still be
    # decoding: kerrow takes "quit" up after it, so its result comes before
    # the complete event, however long the decode is quiet.
    session.send("quit")
    session.wait_for(lambda event: event.get("type") == "complete", READY_TIMEOUT_SECONDS)
    audio.close()
    status = process.wait()
    print(f"kerrow exited with status {status}", flush=True)
    return status


if __name__ == "__main__":
    sys.exit(main())
