#!/usr/bin/env node
// The pipeline a sherpa-onnx user would write for a whole-file transcript, as
// the yardstick of kerrow's --wav-input: the silero VAD over the file, the same
// SenseVoice model on every speech segment, the same punctuation model on the
// joined text, all through the library's own Node binding of the same release.
//
// usage: NODE_PATH=<build>/deps/node_modules node peer_file_decode.js \
//          WAV VAD_MODEL SENSEVOICE_MODEL TOKENS PUNCT_MODEL THREADS
// Prints one JSON object: wall and CPU time, peak RSS, time inside model calls,
// segment count and the punctuated text.
'use strict';

const sherpa = require('sherpa-onnx-node');

const [wavPath, vadModel, senseVoiceModel, tokens, punctModel, threadsArg] = process.argv.slice(2);
if (!threadsArg) {
  process.stderr.write('usage: peer_file_decode.js WAV VAD_MODEL SENSEVOICE_MODEL TOKENS PUNCT_MODEL THREADS\n');
  process.exit(2);
}
const threads = Number(threadsArg);

const started = process.hrtime.bigint();
const cpuAtStart = process.cpuUsage();
let modelNs = 0n;
function timed(call) {
  const t0 = process.hrtime.bigint();
  const value = call();
  modelNs += process.hrtime.bigint() - t0;
  return value;
}

const recognizer = new sherpa.OfflineRecognizer({
  featConfig: {sampleRate: 16000, featureDim: 80},
  modelConfig: {senseVoice: {model: senseVoiceModel, useInverseTextNormalization: 1}, tokens, numThreads: threads,
                provider: 'cpu', debug: 0},
});
const vad = new sherpa.Vad({
  sileroVad: {model: vadModel, threshold: 0.5, minSilenceDuration: 0.5, minSpeechDuration: 0.25,
              maxSpeechDuration: 8, windowSize: 512},
  sampleRate: 16000, numThreads: 1, provider: 'cpu', debug: 0,
}, 120);
const punctuation = new sherpa.OfflinePunctuation({model: {ctTransformer: punctModel, numThreads: 1, provider: 'cpu', debug: 0}});
const modelsLoadedNs = process.hrtime.bigint() - started;

const wave = sherpa.readWave(wavPath);
const texts = [];
let segments = 0;
function decodeClosedSegments() {
  while (!vad.isEmpty()) {
    const segment = vad.front();
    vad.pop();
    const stream = recognizer.createStream();
    stream.acceptWaveform({sampleRate: wave.sampleRate, samples: segment.samples});
    timed(() => recognizer.decode(stream));
    const text = recognizer.getResult(stream).text.trim();
    if (text.length > 0) texts.push(text);
    segments += 1;
  }
}

const window = 512;
for (let i = 0; i < wave.samples.length; i += window) {
  timed(() => vad.acceptWaveform(wave.samples.subarray(i, i + window)));
  decodeClosedSegments();
}
vad.flush();
decodeClosedSegments();
const text = texts.length > 0 ? timed(() => punctuation.addPunct(texts.join(' '))) : '';

const wallNs = process.hrtime.bigint() - started;
const cpu = process.cpuUsage(cpuAtStart);
process.stdout.write(JSON.stringify({
  wall_ms: Number(wallNs / 1000000n),
  load_ms: Number(modelsLoadedNs / 1000000n),
  cpu_ms: Math.round((cpu.user + cpu.system) / 1000),
  peak_rss_kb: process.resourceUsage().maxRSS,
  model_ms: Number(modelNs / 1000000n),
  segments,
  text,
}) + '\n');
