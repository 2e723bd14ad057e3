// kerrow: the speech-recognition engine process. The host talks to it through
// JSON lines on stdout, commands on stdin and raw PCM on an inherited descriptor.
#include <string>

#include "app/arg_parser.h"
#include "common/options.h"
#include "common/out_of_memory_guard.h"
#include "app/run.h"
#include "events/event_emitter.h"
#include "speaker/identify_only_command.h"
#include "speaker/register_command.h"
#include "speaker/speaker_db_commands.h"

namespace {

bool AnyUnregisterOption(const kerrow::Options& options) {
  return !options.unregister_speaker_id.empty() || !options.unregister_name.empty() ||
         !options.unregister_md5.empty();
}

// Exactly one action runs: the first one the options name, in this order.
int Dispatch(const kerrow::Options& options) {
  if (!options.register_name.empty()) return kerrow::RunRegister(options);
  if (options.list_speakers) return kerrow::RunListSpeakers(options);
  if (options.migrate_speakers) return kerrow::RunMigrateSpeakers(options);
  if (!options.rename_speaker_id.empty()) return kerrow::RunRenameSpeaker(options);
  if (AnyUnregisterOption(options)) return kerrow::RunUnregister(options);
  if (options.identify_only) return kerrow::RunIdentifyOnly(options);
  return kerrow::Run(options);
}

}  // namespace

int main(int argc, char** argv) {
  kerrow::Options options;
  std::string error;
  if (!kerrow::ParseArgs(argc, argv, &options, &error)) {
    if (error == "help") {
      kerrow::PrintUsage();
      return 0;
    }
    kerrow::EventEmitter emitter;
    emitter.EmitError(error);
    kerrow::PrintUsage();
    return 1;
  }
  // The last resort: every action catches what it can report more precisely.
  int status = 1;
  if (!kerrow::RunUnlessOutOfMemory([&] { status = Dispatch(options); })) {
    kerrow::EventEmitter emitter;
    emitter.EmitError(kerrow::kOutOfMemoryMessage);
    return 1;
  }
  return status;
}
