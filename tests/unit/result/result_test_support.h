#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "result_serialize.h"

namespace gpuvet {

// A fresh directory per test, with the store's path pointing into it.
class ResultDirTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = testing::TempDir() + "gpuvet_result_XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir = pattern;
    store.path = ResultSerialize::BuildPath(dir);
  }
  void TearDown() override { std::filesystem::remove_all(dir); }

  void WriteFile(const std::string& text) const { std::ofstream(store.path, std::ios::binary) << text; }
  std::string ReadFile() const {
    std::ostringstream text;
    text << std::ifstream(store.path, std::ios::binary).rdbuf();
    return text.str();
  }
  // The store's reader into `records`, with what it printed.
  std::string Read(std::vector<AdapterResult>& records, int32_t* status = nullptr) {
    testing::internal::CaptureStdout();
    const int32_t result = store.ReadConfig(store.path, records);
    if (status != nullptr) {
      *status = result;
    }
    return testing::internal::GetCapturedStdout();
  }
  std::string Write(int32_t* status = nullptr) {
    testing::internal::CaptureStdout();
    const int32_t result = store.AddResult();
    if (status != nullptr) {
      *status = result;
    }
    return testing::internal::GetCapturedStdout();
  }

  std::string dir;
  ResultSerialize store;
};

inline bool SameRecord(const AdapterResult& a, const AdapterResult& b) {
  return a.checked == b.checked && a.checkResult == b.checkResult && AdapterEntryEqual(a.adapter, b.adapter) &&
         a.clCVersion == b.clCVersion && a.clDevVersion == b.clDevVersion && a.clDrvVersion == b.clDrvVersion;
}

inline AdapterEntry MakeAdapter(uint32_t venID, uint32_t devID, const std::string& name, const std::string& version) {
  return AdapterEntry{venID, devID, name, version, "20230607000000.000000-000"};
}

}  // namespace gpuvet
