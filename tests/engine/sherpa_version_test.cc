#include <gtest/gtest.h>

#include <string>

#include "engine/sherpa_handles.h"
#include "engine/sherpa_onnx_c_api.h"

namespace kerrow::testing {
namespace {

// The declarations and layout checks in sherpa_onnx_c_api.h describe exactly
// this build of the library.
TEST(SherpaOnnxCApi, LinkedLibraryIsThePinnedRelease) {
  EXPECT_EQ(std::string(SherpaOnnxGetVersionStr()), "1.13.8");
  EXPECT_EQ(std::string(SherpaOnnxGetGitSha1()), "11afbd00");
  EXPECT_EQ(std::string(SherpaOnnxGetGitDate()), "Thu Sep 10 13:52:45 2026");
}

TEST(SherpaHandles, HoldersAreOnePointerWideAndReleaseWhatTheyOwn) {
  static_assert(sizeof(EmbeddingManagerHandle) == sizeof(void*), "stateless deleter");
  EmbeddingManagerHandle manager(SherpaOnnxCreateSpeakerEmbeddingManager(3));
  ASSERT_NE(manager, nullptr);
  const float voice[3] = {1.0f, 0.0f, 0.0f};
  EXPECT_EQ(SherpaOnnxSpeakerEmbeddingManagerAddListFlattened(manager.get(), "alice", voice, 1), 1);
  SpeakerSearchResultHandle name(
      SherpaOnnxSpeakerEmbeddingManagerSearch(manager.get(), voice, 0.5f));
  ASSERT_NE(name, nullptr);
  EXPECT_EQ(std::string(name.get()), "alice");
  const float other[3] = {0.0f, 1.0f, 0.0f};
  SpeakerSearchResultHandle none(
      SherpaOnnxSpeakerEmbeddingManagerSearch(manager.get(), other, 0.5f));
  EXPECT_EQ(none, nullptr);
}

}  // namespace
}  // namespace kerrow::testing
