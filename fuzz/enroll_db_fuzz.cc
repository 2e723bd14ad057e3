// The enrollment database as any file on disk may hold it, followed by a
// random series of the edits the one-shot commands make. After every edit the
// database is loaded again, and everything the edit was not asked to remove
// must still be there, unchanged: a host never sees a lost voiceprint until a
// speaker stops being recognised. An edit that fails leaves the file as it was.
#include <fuzzer/FuzzedDataProvider.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "enroll_db_model.h"
#include "fuzz_check.h"
#include "scratch_dir.h"
#include "speaker/enroll_db.h"

namespace kerrow {
namespace {

std::string ReadBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

// Picks an existing value most of the time, so that edits hit something.
std::string PickOrInvent(FuzzedDataProvider* input, const std::vector<std::string>& known) {
  if (!known.empty() && input->ConsumeBool()) {
    return known[input->ConsumeIntegralInRange<size_t>(0, known.size() - 1)];
  }
  return input->ConsumeRandomLengthString(40);
}

// What the register command passes: the checksum of a file, or nothing.
std::string InventMd5(FuzzedDataProvider* input, const std::vector<std::string>& known) {
  switch (input->ConsumeIntegralInRange<int>(0, 2)) {
    case 0:
      return std::string();
    case 1:
      if (!known.empty()) return known[input->ConsumeIntegralInRange<size_t>(0, known.size() - 1)];
      [[fallthrough]];
    default: {
      std::string md5;
      for (int i = 0; i < 32; ++i) md5 += "0123456789abcdef"[input->ConsumeIntegral<uint8_t>() % 16];
      return md5;
    }
  }
}

std::vector<float> InventEmbedding(FuzzedDataProvider* input, int dim) {
  // Real embeddings have a few hundred components; a file may claim any dim,
  // and matching a huge one would only make the harness slow.
  constexpr int kLongestEmbedding = 1024;
  size_t length = dim >= 1 && dim <= kLongestEmbedding ? static_cast<size_t>(dim)
                                                       : input->ConsumeIntegralInRange<size_t>(1, 8);
  if (input->ConsumeIntegralInRange<int>(0, 15) == 0) length = input->ConsumeIntegralInRange<size_t>(0, 9);
  std::vector<float> embedding(length);
  for (float& value : embedding) value = static_cast<float>(input->ConsumeIntegral<int16_t>()) / 1024.0f;
  if (!embedding.empty() && input->ConsumeIntegralInRange<int>(0, 15) == 0) {
    embedding[0] = input->ConsumeBool() ? std::numeric_limits<float>::quiet_NaN()
                                        : std::numeric_limits<float>::infinity();
  }
  return embedding;
}

bool AllFinite(const std::vector<float>& values) {
  for (float value : values) {
    if (!std::isfinite(value)) return false;
  }
  return true;
}

class EditSession {
 public:
  EditSession(const std::string& path, FuzzedDataProvider* input) : path_(path), input_(input) {}

  // False when the file may not be rewritten; then no edit may change it.
  bool Start() {
    const std::string before = ReadBytes(path_);
    EnrollDbSnapshot loaded;
    const bool loads = loaded.Load(path_);
    std::string error;
    if (!MigrateEnrollDb(path_, &error)) {
      FUZZ_CHECK(!error.empty(), "a refused migration without a message");
      FUZZ_CHECK(ReadBytes(path_) == before, "a refused migration changed the file");
      if (loads) state_ = loaded;
      return false;
    }
    FUZZ_CHECK(loads, "migrated a database that does not load");
    FUZZ_CHECK(state_.Load(path_), "a migrated database does not load");
    // Ids a legacy file lacked are new; everything else must be as it was.
    FUZZ_CHECK(state_.SameSpeakersIgnoringIds(loaded), "migration changed the speakers");
    EnrollDbSnapshot again;
    FUZZ_CHECK(again.Load(path_) && again.SameAs(state_), "ids change from one load to the next");
    return true;
  }

  // On a database that may not be rewritten, no edit may change the file,
  // whatever it answers.
  void EditRefused() {
    const std::string before = ReadBytes(path_);
    EnrollDbSnapshot expected = state_;
    std::string error;
    ApplyRandomEdit(&expected, &error, /*check_found=*/false);
    FUZZ_CHECK(ReadBytes(path_) == before, "an edit rewrote a refused database");
  }

  void EditOnce() {
    const std::string before = ReadBytes(path_);
    EnrollDbSnapshot expected = state_;
    std::string error;
    const bool ok = ApplyRandomEdit(&expected, &error, /*check_found=*/true);
    if (!ok) {
      FUZZ_CHECK(!error.empty(), "a failed edit without a message");
      FUZZ_CHECK(ReadBytes(path_) == before, "a failed edit changed the file");
      return;
    }
    EnrollDbSnapshot reloaded;
    FUZZ_CHECK(reloaded.Load(path_), "an edit left a database that does not load");
    FUZZ_CHECK(reloaded.SameAs(expected), "an edit lost or changed what it was not asked to");
    state_ = reloaded;
  }

 private:
  bool ApplyRandomEdit(EnrollDbSnapshot* expected, std::string* error, bool check_found) {
    switch (input_->ConsumeIntegralInRange<int>(0, 4)) {
      case 0:
        return Append(expected, error, check_found);
      case 1: {
        const std::string name = PickOrInvent(input_, state_.Names());
        bool found = false;
        std::vector<std::string> md5s;
        if (!RemoveEnrollByName(path_, name, &md5s, &found, error)) return false;
        FUZZ_CHECK(!check_found || found == (expected->RemoveByName(name) > 0), "found disagrees with the names");
        return true;
      }
      case 2: {
        const std::string id = PickOrInvent(input_, state_.Ids());
        bool found = false;
        std::vector<std::string> md5s;
        std::string name;
        if (!RemoveEnrollById(path_, id, &md5s, &found, &name, error)) return false;
        FUZZ_CHECK(!check_found || found == (expected->RemoveById(id) > 0), "found disagrees with the ids");
        return true;
      }
      case 3: {
        const std::string md5 = PickOrInvent(input_, state_.Md5s());
        bool found = false;
        std::string name;
        if (!RemoveEnrollByMd5(path_, md5, &found, &name, error)) return false;
        FUZZ_CHECK(!check_found || found == expected->RemoveByMd5(md5), "found disagrees with the checksums");
        return true;
      }
      default: {
        const std::string id = PickOrInvent(input_, state_.Ids());
        const std::string name = input_->ConsumeRandomLengthString(40);
        bool found = false;
        if (!RenameEnrollById(path_, id, name, &found, error)) return false;
        FUZZ_CHECK(!check_found || found == expected->Rename(id, name), "found disagrees with the ids");
        return true;
      }
    }
  }

  bool Append(EnrollDbSnapshot* expected, std::string* error, bool check_found) {
    const std::string id = input_->ConsumeBool() ? PickOrInvent(input_, state_.Ids()) : std::string();
    const std::string name = input_->ConsumeRandomLengthString(40);
    const std::string md5 = InventMd5(input_, state_.Md5s());
    const std::vector<float> embedding = InventEmbedding(input_, state_.dim());
    bool already = false;
    std::string out_id;
    if (!AppendEnrollEmbedding(path_, id, name, md5, embedding, error, &already, &out_id)) {
      return false;
    }
    FUZZ_CHECK(AllFinite(embedding), "a non-finite voiceprint was stored");
    if (already) {
      FUZZ_CHECK(!check_found || (!md5.empty() && state_.HasMd5(md5)),
                 "already registered under an unknown checksum");
      return true;
    }
    expected->Append(id.empty() ? out_id : id, name, EnrollSample{md5, embedding});
    return true;
  }

  std::string path_;
  FuzzedDataProvider* input_;
  EnrollDbSnapshot state_;
};

}  // namespace
}  // namespace kerrow

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider input(data, size);
  const kerrow::ScratchDir& scratch = kerrow::ScratchDir::Get();
  scratch.Clear();
  const std::string file = input.ConsumeRandomLengthString(1 << 14);
  const std::string path = scratch.Write("speakers.txt", reinterpret_cast<const uint8_t*>(file.data()),
                                         file.size());
  kerrow::EditSession session(path, &input);
  const bool writable = session.Start();
  for (int edit = 0; edit < 8 && input.remaining_bytes() > 0; ++edit) {
    if (writable) {
      session.EditOnce();
    } else {
      session.EditRefused();
    }
  }
  return 0;
}
