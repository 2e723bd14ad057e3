#ifndef KERROW_SPEAKER_REGISTER_COMMAND_H_
#define KERROW_SPEAKER_REGISTER_COMMAND_H_

#include "common/options.h"

namespace kerrow {

// One-shot: enrol the voiceprint of --register-input under --register-name.
// Prints one JSON reply and returns the exit status.
int RunRegister(const Options& options);

}  // namespace kerrow

#endif  // KERROW_SPEAKER_REGISTER_COMMAND_H_
