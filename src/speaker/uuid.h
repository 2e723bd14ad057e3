#ifndef KERROW_SPEAKER_UUID_H_
#define KERROW_SPEAKER_UUID_H_

#include <string>

namespace kerrow {

// A random version-4 UUID in the 8-4-4-4-12 lowercase form, used as the stable id
// of an enrolled speaker.
std::string GenerateUuidV4();

}  // namespace kerrow

#endif  // KERROW_SPEAKER_UUID_H_
