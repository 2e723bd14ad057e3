#ifndef KERROW_SPEAKER_IDENTIFY_ONLY_COMMAND_H_
#define KERROW_SPEAKER_IDENTIFY_ONLY_COMMAND_H_

#include "common/options.h"

namespace kerrow {

// One-shot: names the speakers of pre-labelled segments of a WAV file.
int RunIdentifyOnly(const Options& options);

}  // namespace kerrow

#endif  // KERROW_SPEAKER_IDENTIFY_ONLY_COMMAND_H_
