#include <arpa/inet.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>

#include "helper/link/FileReplacement.h"
#include "helper/link/ResolverConfiguration.h"
#include "helper/link/Undo.h"
#include "tests/helper/support/LoopFixture.h"

using namespace helper;
namespace fs = std::filesystem;

namespace {

class NoRoutes : public RouteTable {
 public:
  foundation::Result<Route> lookUp(in_addr) override { return foundation::Error{}; }
  foundation::Status add(const Route &) override { return foundation::Error{}; }
  foundation::Status detach(in_addr, const std::string &) override { return {}; }
  foundation::Status remove(const Route &) override { return {}; }
};

class ResolverConfigurationTest : public LoopFixture {
 protected:
  ResolverConfigurationTest() {
    std::string name = testing::TempDir() + "resolver.XXXXXX";
    EXPECT_NE(::mkdtemp(name.data()), nullptr);
    folder_ = name;
    paths_ = {
        .resolved = folder_ + "/resolved", .resolvconf = {folder_ + "/resolvconf"}, .file = folder_ + "/resolv.conf"};
    auto journal = Journal::create(folder_ + "/vpnctl");
    EXPECT_TRUE(journal);
    journal_.emplace(std::move(*journal));
    for (const char *server : {"10.9.0.1", "10.9.0.2"}) servers_.push_back(in_addr{inet_addr(server)});
  }
  ~ResolverConfigurationTest() override { fs::remove_all(folder_); }

  void write(const std::string &path, const std::string &text) { std::ofstream(path) << text; }
  static std::string read(const std::string &path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
  }
  foundation::Status apply(bool primary = true) {
    return ResolverConfiguration(event_, *journal_, paths_).apply("ppp0", servers_, primary);
  }
  void undo() {
    Undo(routes_, [this](const std::string &sentence) { complaints_.push_back(sentence); }).finish(*journal_);
  }

  std::string folder_;
  ResolverConfiguration::Paths paths_;
  std::optional<Journal> journal_;
  std::vector<in_addr> servers_;
  NoRoutes routes_;
  std::vector<std::string> complaints_;
};

TEST_F(ResolverConfigurationTest, EditsTheFileAndPutsItBack) {
  const std::string before = "# mine\nsearch example\n nameserver 1.1.1.1\noptions edns0\nno newline";
  write(paths_.file, before);
  ASSERT_EQ(::chmod(paths_.file.c_str(), 0640), 0);
  ASSERT_TRUE(apply());
  EXPECT_EQ(read(paths_.file),
            "nameserver 10.9.0.1\nnameserver 10.9.0.2\n# mine\nsearch example\noptions edns0\nno newline\n");
  undo();
  EXPECT_EQ(read(paths_.file), before);
  EXPECT_EQ(fs::status(paths_.file).permissions(), fs::perms(0640));
  EXPECT_TRUE(complaints_.empty());
}

TEST_F(ResolverConfigurationTest, PutsALinkBackAndLeavesItsTarget) {
  write(folder_ + "/target", "nameserver 1.1.1.1\nsearch example\n");
  fs::create_symlink("target", paths_.file);
  ASSERT_TRUE(apply());
  EXPECT_EQ(read(paths_.file), "nameserver 10.9.0.1\nnameserver 10.9.0.2\nsearch example\n");
  EXPECT_EQ(read(folder_ + "/target"), "nameserver 1.1.1.1\nsearch example\n");
  undo();
  EXPECT_TRUE(fs::is_symlink(paths_.file));
  EXPECT_EQ(fs::read_symlink(paths_.file), "target");
}

TEST_F(ResolverConfigurationTest, RemovesAFileThatWasNotThere) {
  ASSERT_TRUE(apply());
  EXPECT_TRUE(fs::exists(paths_.file));
  undo();
  EXPECT_FALSE(fs::exists(paths_.file));
}

TEST_F(ResolverConfigurationTest, LeavesAFileThatSomebodyElseHasTakenOver) {
  write(paths_.file, "nameserver 1.1.1.1\n");
  ASSERT_TRUE(apply());
  write(paths_.file, "nameserver 2.2.2.2\n");
  undo();
  EXPECT_EQ(read(paths_.file), "nameserver 2.2.2.2\n");
  EXPECT_EQ(complaints_.size(), 1U);
}

TEST_F(ResolverConfigurationTest, SaysNothingOfAChangeThatWasOnlyNoted) {
  write(paths_.file, "nameserver 1.1.1.1\n");
  auto file = currentFile(paths_.file);
  ASSERT_TRUE(file);
  file->replacement = "other\n";
  ASSERT_TRUE(journal_->note(*file));
  undo();
  EXPECT_EQ(read(paths_.file), "nameserver 1.1.1.1\n");
  EXPECT_TRUE(complaints_.empty());
}

TEST_F(ResolverConfigurationTest, DoesNothingWithoutServersOrForAPartOfTheNet) {
  write(paths_.file, "nameserver 1.1.1.1\n");
  ASSERT_TRUE(apply(false));
  servers_.clear();
  ASSERT_TRUE(apply(true));
  EXPECT_EQ(read(paths_.file), "nameserver 1.1.1.1\n");
  EXPECT_TRUE(journal_->entries().empty());
}

TEST_F(ResolverConfigurationTest, GivesThemToResolvconfIfThatIsThere) {
  const std::string &program = paths_.resolvconf[0];
  write(program, "#!/bin/sh\necho \"$@\" >>" + folder_ + "/calls\ncat >>" + folder_ + "/calls\n");
  ASSERT_EQ(::chmod(program.c_str(), 0755), 0);
  ASSERT_TRUE(apply());
  EXPECT_EQ(read(folder_ + "/calls"), "-a ppp0.vpnctl\nnameserver 10.9.0.1\nnameserver 10.9.0.2\n");
  fs::remove(folder_ + "/calls");
  undo();
  EXPECT_EQ(read(folder_ + "/calls"), "-d ppp0.vpnctl\n");
  EXPECT_FALSE(fs::exists(paths_.file));
}

TEST_F(ResolverConfigurationTest, TellsThatResolvconfRefuses) {
  const std::string &program = paths_.resolvconf[0];
  write(program, "#!/bin/sh\nexit 3\n");
  ASSERT_EQ(::chmod(program.c_str(), 0755), 0);
  const auto applied = apply();
  ASSERT_FALSE(applied);
  EXPECT_EQ(applied.error().message, program + " -a ends with status 3");
  undo();
  EXPECT_EQ(complaints_.size(), 1U);
  EXPECT_EQ(journal_->entries().size(), 1U) << "the next helper is to try again";
  fs::remove(program);
  undo();
  EXPECT_EQ(complaints_.size(), 1U) << "nobody reads the records of a program that is gone";
  EXPECT_TRUE(journal_->entries().empty());
}

}  // namespace
