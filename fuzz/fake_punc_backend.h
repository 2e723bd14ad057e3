#ifndef KERROW_FUZZ_FAKE_PUNC_BACKEND_H_
#define KERROW_FUZZ_FAKE_PUNC_BACKEND_H_

#include <cstddef>
#include <cstdint>

namespace kerrow {

// The punctuation fuzzer links fake_punc_backend.cc in place of the real
// adapter: a "model" whose every choice (which mark goes at each word end,
// whether it drops the words after its last sentence mark as the pinned
// library's model can, whether it fails) is read from these bytes, cyclically.
// It only ever adds marks, so the text it returns keeps every word.
void SetFakePuncScript(const uint8_t* data, size_t size);

}  // namespace kerrow

#endif  // KERROW_FUZZ_FAKE_PUNC_BACKEND_H_
