// Every system call of replacing a file and of putting back what was there, and what the next helper makes of it when
// it goes wrong: what was there before, byte for byte, and nothing beside it.

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <set>

#include "helper/network/FileReplacement.h"
#include "tests/support/FaultsFixture.h"
#include "tests/support/TemporaryFolder.h"

namespace helper {
namespace {

namespace fs = std::filesystem;
using support::contentsOf;
using support::TracedProcess;
using support::writeFile;

// What is at the path before.
enum class Before { file, link, nothing, mountedFile };

class FileReplacementFaultsTest : public support::FaultsFixture, public ::testing::WithParamInterface<Before> {
 protected:
  using Kind = support::CallFault::Kind;
  static constexpr std::chrono::milliseconds kPatience{20};  // nobody else holds the lock
  static constexpr char kBefore[] = "nameserver 192.0.2.1\nsearch before.test\n";

  void SetUp() override {
    if (GetParam() != Before::mountedFile) return;
    if (::unshare(CLONE_NEWNS) < 0 || ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) < 0)
      GTEST_SKIP() << "no mounts of one's own here";
    writeFile(mounted_, "");
    writeFile(path_, "");
    ASSERT_EQ(::mount(mounted_.c_str(), path_.c_str(), nullptr, MS_BIND, nullptr), 0);
  }
  void TearDown() override {
    if (GetParam() == Before::mountedFile) ::umount(path_.c_str());
  }

  void prepare() const {
    fs::remove_all(base_);
    writeFile(target_, kBefore);
    if (GetParam() == Before::mountedFile) return writeFile(mounted_, kBefore);
    fs::remove(path_);
    if (GetParam() == Before::file) writeFile(path_, kBefore);
    if (GetParam() == Before::link) fs::create_symlink("target", path_);
  }
  // A link that dies when it has replaced the file.
  bool replace() const {
    auto journal = Journal::create(base_, kPatience);
    return journal &&
           replaceFile(*journal, path_, [](const std::string &before) { return "nameserver 10.0.0.1\n" + before; });
  }
  // What the next helper does.
  bool repair() const {
    std::vector<vpnctl::Error> errors;
    bool done = true;
    for (Journal &journal : Journal::abandoned(base_, errors, kPatience)) {
      const auto back = journal.entries().empty() ? true : takeFileBack(journal, 0);
      done = done && back && *back;
      if (back && *back) journal.remove();
    }
    return done && errors.empty();
  }
  void expectAsBefore() {
    EXPECT_TRUE(repair());
    const auto bytes = contentsOf(path_);
    EXPECT_EQ(bytes.value_or("none"), GetParam() == Before::nothing ? "none" : kBefore);
    EXPECT_EQ(fs::is_symlink(path_), GetParam() == Before::link);
    EXPECT_EQ(contentsOf(target_), kBefore);
    std::set<std::string> beside;
    for (const auto &entry : fs::directory_iterator(folder_.path())) beside.insert(entry.path().filename());
    beside.erase("resolv.conf");
    beside.erase("mounted");
    EXPECT_EQ(beside, std::set<std::string>{"target"});
  }

  support::TemporaryFolder folder_{support::TemporaryFolder::Place::memory};
  const std::string path_ = folder_.path("resolv.conf");
  const std::string target_ = folder_.path("target");
  const std::string mounted_ = folder_.path("mounted");
  const std::string base_ = folder_.path("run");
};

TEST_P(FileReplacementFaultsTest, AReplacementIsTakenBack) {
  const Faults faults = {{Kind::kill, 0},      {Kind::fail, ENOSPC}, {Kind::fail, EIO},
                         {Kind::fail, EMFILE}, {Kind::shorten, 0},   {Kind::fill, 0}};
  withFaults(
      faults, [this] { prepare(); }, [this] { return replace() ? 0 : 1; },
      [this](const TracedProcess &run) {
        const std::string ours = "nameserver 10.0.0.1\n" + std::string(GetParam() == Before::nothing ? "" : kBefore);
        EXPECT_TRUE(run.exitCode != 0 || contentsOf(path_) == ours);
        expectAsBefore();
      });
}

TEST_P(FileReplacementFaultsTest, WhatATakingBackLeavesTheNextOneTakesBack) {
  // The journal itself lies in memory: it can be read.
  const Faults faults = {{Kind::kill, 0}, {Kind::shorten, 0}, {Kind::fill, 0}};
  withFaults(
      faults,
      [this] {
        prepare();
        ASSERT_TRUE(replace());
      },
      [this] { return repair() ? 0 : 1; }, [this](const TracedProcess &) { expectAsBefore(); });
}

std::string nameOf(const ::testing::TestParamInfo<Before> &test) {
  constexpr std::array kNames = {"File", "Link", "Nothing", "MountedFile"};
  return kNames.at(static_cast<std::size_t>(test.param));
}

INSTANTIATE_TEST_SUITE_P(Each, FileReplacementFaultsTest,
                         ::testing::Values(Before::file, Before::link, Before::nothing, Before::mountedFile), nameOf);

}  // namespace
}  // namespace helper
