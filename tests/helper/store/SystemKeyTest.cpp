#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "helper/store/SystemKey.h"
#include "tests/support/FaultyFileSystem.h"
#include "tests/support/TemporaryFolder.h"

namespace helper {
namespace {

using support::contentsOf;
using support::FaultyFileSystem;
using vpnctl::Secret;
using Call = FaultyFileSystem::Call;

class SystemKeyTest : public ::testing::Test {
 protected:
  support::TemporaryFolder folder;
  FaultyFileSystem fileSystem;
  const std::string path = folder.path("SystemKey");
};

TEST_F(SystemKeyTest, OpensWhatItSealed) {
  const auto made = SystemKey::create(path, fileSystem);
  ASSERT_TRUE(made);
  const auto key = SystemKey::load(path, fileSystem);
  ASSERT_TRUE(key);
  for (const auto &text : {std::string(), std::string("secret"), std::string("\0\xff", 2), std::string(5000, 'x')}) {
    const auto sealed = made->seal(Secret(text), "about");
    ASSERT_TRUE(sealed);
    const auto opened = key->unseal(*sealed, "about");
    ASSERT_TRUE(opened);
    EXPECT_TRUE(*opened == Secret(text));
    EXPECT_TRUE(text.size() < 6 || sealed->find(text) == std::string::npos);
  }
}

TEST_F(SystemKeyTest, TheSameSecretIsNeverSealedTheSameWay) {
  const auto key = SystemKey::create(path, fileSystem);
  ASSERT_TRUE(key);
  EXPECT_NE(*key->seal(Secret(std::string_view("a")), ""), *key->seal(Secret(std::string_view("a")), ""));
}

TEST_F(SystemKeyTest, EveryChangedBitIsNoticed) {
  const auto key = SystemKey::create(path, fileSystem);
  ASSERT_TRUE(key);
  const auto sealed = key->seal(Secret(std::string_view("secret")), "about");
  ASSERT_TRUE(sealed);
  for (std::size_t bit = 0; bit < sealed->size() * 8; ++bit) {
    std::string changed = *sealed;
    changed[bit / 8] = static_cast<char>(changed[bit / 8] ^ (1 << bit % 8));
    const auto opened = key->unseal(changed, "about");
    ASSERT_FALSE(opened) << bit;
    EXPECT_EQ(opened.error().code, EBADMSG);
  }
  for (std::size_t size = 0; size < sealed->size(); ++size)
    EXPECT_FALSE(key->unseal(std::string_view(*sealed).substr(0, size), "about")) << size;
  EXPECT_FALSE(key->unseal(*sealed, "About"));
  EXPECT_FALSE(key->unseal(*sealed, ""));
}

TEST_F(SystemKeyTest, AnotherKeyOpensNothing) {
  const auto key = SystemKey::create(path, fileSystem);
  const auto other = SystemKey::create(path + "2", fileSystem);
  ASSERT_TRUE(key && other);
  EXPECT_FALSE(other->unseal(*key->seal(Secret(std::string_view("a")), ""), ""));
}

TEST_F(SystemKeyTest, AKeyIsNeverReplaced) {
  ASSERT_TRUE(SystemKey::create(path, fileSystem));
  const auto before = contentsOf(path);
  struct stat attributes = {};
  ASSERT_EQ(::stat(path.c_str(), &attributes), 0);
  EXPECT_EQ(attributes.st_mode & 07777, 0400U);
  const auto second = SystemKey::create(path, fileSystem);
  ASSERT_FALSE(second);
  EXPECT_EQ(second.error().code, EEXIST);
  EXPECT_EQ(contentsOf(path), before);
  EXPECT_FALSE(contentsOf(path + "-new").has_value());
}

TEST_F(SystemKeyTest, AFailureLeavesNoKey) {
  const struct {
    Call call;
    const char *suffix;
  } faults[] = {{Call::open, "-new"}, {Call::write, "-new"}, {Call::synchronize, "-new"}, {Call::link, "SystemKey"}};
  for (const auto &fault : faults) {
    fileSystem.failNext(fault.call, fault.suffix, ENOSPC);
    EXPECT_FALSE(SystemKey::create(path, fileSystem));
    EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
  }
}

TEST_F(SystemKeyTest, WhatIsNoKeyIsRefused) {
  EXPECT_EQ(SystemKey::load(path, fileSystem).error().code, ENOENT);
  support::writeFile(path, "too short");
  ASSERT_EQ(::chmod(path.c_str(), 0400), 0);
  EXPECT_EQ(SystemKey::load(path, fileSystem).error().code, EINVAL);
  support::writeFile(folder.path("readable"), std::string(32, 'k'));
  ASSERT_EQ(::chmod(folder.path("readable").c_str(), 0440), 0);
  EXPECT_EQ(SystemKey::load(folder.path("readable"), fileSystem).error().code, EPERM);
  std::filesystem::create_symlink(folder.path("readable"), folder.path("link"));
  EXPECT_EQ(SystemKey::load(folder.path("link"), fileSystem).error().code, ELOOP);
}

}  // namespace
}  // namespace helper
