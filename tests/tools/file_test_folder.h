// A fresh folder per test for the file tests, removed afterwards.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

namespace krf::tools {

class FileTestFolder : public ::testing::Test {
protected:
    void SetUp() override {
        // Unique per process: several builds may run their tests at once.
        folder_ = std::filesystem::temp_directory_path() /
                  ("krfilter-files-" + std::to_string(getpid()) + "-" +
                   ::testing::UnitTest::GetInstance()->current_test_info()->name());
        std::filesystem::remove_all(folder_);
        std::filesystem::create_directories(folder_);
    }
    void TearDown() override { std::filesystem::remove_all(folder_); }

    std::string path(const std::string& name) const { return (folder_ / name).string(); }

    std::filesystem::path folder_;
};

}  // namespace krf::tools
