#ifndef KERROW_SPEAKER_SAMPLES_DIR_H_
#define KERROW_SPEAKER_SAMPLES_DIR_H_

#include <string>

#include "common/options.h"

namespace kerrow {

// Where the copies of enrolled audio live: --speaker-samples-dir when given,
// otherwise "samples" beside the enrollment database (under the working directory
// when the database path has no directory part). Register, list and unregister
// must agree on this, or unregister would leave copies behind.
std::string SamplesDirectoryFor(const Options& options);

// The copy of the audio whose MD5 is `md5`: md5 + ".wav" in SamplesDirectoryFor.
std::string SampleFilePathFor(const Options& options, const std::string& md5);

}  // namespace kerrow

#endif  // KERROW_SPEAKER_SAMPLES_DIR_H_
