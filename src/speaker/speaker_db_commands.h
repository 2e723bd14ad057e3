#ifndef KERROW_SPEAKER_SPEAKER_DB_COMMANDS_H_
#define KERROW_SPEAKER_SPEAKER_DB_COMMANDS_H_

#include "common/options.h"

namespace kerrow {

// One-shot database commands; each prints one JSON line and returns the exit status.
int RunListSpeakers(const Options& options);
int RunMigrateSpeakers(const Options& options);
int RunRenameSpeaker(const Options& options);
int RunUnregister(const Options& options);

}  // namespace kerrow

#endif  // KERROW_SPEAKER_SPEAKER_DB_COMMANDS_H_
