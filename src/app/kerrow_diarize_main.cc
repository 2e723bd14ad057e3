// kerrow-diarize: the resident diarization helper that kerrow starts with
// --diarization-helper-binary. It diarizes in its own process with the
// in-process sherpa-onnx backend, so that a diarizer crash costs the engine one
// request instead of the whole session.

#include <signal.h>
#include <unistd.h>

#include <iostream>
#include <string>
#include <vector>

#include "common/out_of_memory_guard.h"
#include "diarization/descriptor_write.h"
#include "diarization/diarization_backend.h"
#include "diarization/diarize_helper_server.h"

int main(int argc, char** argv) {
  // When the engine has gone, a reply write must fail, not kill us silently
  // mid-line.
  ::signal(SIGPIPE, SIG_IGN);
  // Standard output is the protocol channel. Keep a private descriptor for it
  // and point descriptor 1 at standard error, so that anything the libraries
  // print can never be mistaken for a reply line.
  const int protocol_fd = ::dup(STDOUT_FILENO);
  if (protocol_fd < 0 || ::dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
    std::cerr << "kerrow-diarize: cannot set up standard output" << std::endl;
    return 1;
  }
  const std::vector<std::string> args(argv + 1, argv + argc);
  const kerrow::ReplyLineWriter write_line = [protocol_fd](const std::string& line) {
    return kerrow::WriteAllToDescriptor(protocol_fd, line + "\n");
  };
  // A request that runs out of memory is answered empty inside; this catches
  // the rest (loading the models), so the engine sees an exit, not an abort.
  int status = 1;
  if (!kerrow::RunUnlessOutOfMemory([&] {
        status = kerrow::RunDiarizeHelper(args, kerrow::MakeSherpaOnnxDiarizationBackend,
                                          std::cin, write_line, std::cerr);
      })) {
    std::cerr << "kerrow-diarize: " << kerrow::kOutOfMemoryMessage << std::endl;
    return 1;
  }
  return status;
}
