#ifndef KERROW_TESTS_SUPPORT_DIARIZATION_MODEL_DIR_H_
#define KERROW_TESTS_SUPPORT_DIARIZATION_MODEL_DIR_H_

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "support/kerrow_process.h"

namespace kerrow::testing {

// A model directory laid out the way a user would unpack the models: both
// trained models under their usual names, so that the directory search of the
// in-process backend and of the helper finds them.
class DiarizationModelDir {
 public:
  DiarizationModelDir() {
    Link("trained/segmentation-3spk/model.onnx", "segmentation-3.1.onnx");
    Link("trained/speaker-embedding/model.onnx", "wespeaker.onnx");
  }
  const std::string& path() const { return dir_.path(); }

 private:
  void Link(const std::string& model, const std::string& name) {
    ASSERT_EQ(::symlink(ModelPath(model).c_str(), dir_.File(name).c_str()), 0);
  }
  TempDir dir_;
};

}  // namespace kerrow::testing

#endif  // KERROW_TESTS_SUPPORT_DIARIZATION_MODEL_DIR_H_
