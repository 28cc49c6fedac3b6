#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <string>
#include <thread>

#include "companions/run/SecretSource.h"
#include "foundation/FileDescriptor.h"
#include "tests/support/TemporaryFolder.h"

using namespace companions;
using vpnctl::FileDescriptor;

namespace {

class SecretSourceTest : public testing::Test {
 protected:
  support::TemporaryFolder folder_;
};

TEST_F(SecretSourceTest, AFileWithoutItsNewline) {
  for (const auto &[bytes, expected] : {std::pair{"pw", "pw"},
                                        {"pw\n", "pw"},
                                        {"pw\r\n", "pw"},
                                        {"pw\n\n", "pw\n"},
                                        {"", ""},
                                        {"\n", ""},
                                        {" p w ", " p w "}}) {
    const auto secret = secretFromFile(folder_.write("secret", bytes));
    ASSERT_TRUE(secret);
    EXPECT_EQ(secret->text(), expected);
  }
}

TEST_F(SecretSourceTest, FilesThatHoldNoSecret) {
  EXPECT_FALSE(secretFromFile(folder_.path("nowhere")));
  EXPECT_FALSE(secretFromFile(folder_.path()));
  EXPECT_FALSE(secretFromFile(folder_.write("zero", std::string("a\0b", 3))));
  EXPECT_FALSE(secretFromFile(folder_.write("long", std::string(4097, 'x'))));
  EXPECT_TRUE(secretFromFile(folder_.write("longest", std::string(4096, 'x'))));
}

TEST_F(SecretSourceTest, Credentials) {
  folder_.write("password", "pw");
  const auto none = secretFromCredential(std::nullopt, "password");
  ASSERT_TRUE(none);
  EXPECT_FALSE(*none);
  const auto missing = secretFromCredential(folder_.path(), "shared_secret");
  ASSERT_TRUE(missing);
  EXPECT_FALSE(*missing);
  const auto password = secretFromCredential(folder_.path(), "password");
  ASSERT_TRUE(password && *password);
  EXPECT_EQ((*password)->text(), "pw");
}

// Both ends of a terminal.
class TerminalQuestion : public SecretSourceTest {
 protected:
  TerminalQuestion() : person_(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
    EXPECT_EQ(::grantpt(person_.get()), 0);
    EXPECT_EQ(::unlockpt(person_.get()), 0);
    std::array<char, 100> name{};
    EXPECT_EQ(::ptsname_r(person_.get(), name.data(), name.size()), 0);
    questioner_.terminal = name.data();
    questioner_.deadline = std::chrono::seconds(20);
    kept_.reset(::open(name.data(), O_RDWR | O_NOCTTY | O_CLOEXEC));
  }
  // What is shown, until TEXT is.
  std::string shownUntil(const std::string &text) {
    std::string shown;
    while (shown.find(text) == std::string::npos) {
      pollfd ready{person_.get(), POLLIN, 0};
      if (::poll(&ready, 1, 20000) != 1) break;
      char c = 0;
      if (::read(person_.get(), &c, 1) != 1) break;
      shown += c;
    }
    return shown;
  }
  bool echoes() const {
    termios settings{};
    EXPECT_EQ(::tcgetattr(kept_.get(), &settings), 0);
    return (settings.c_lflag & ECHO) != 0;
  }

  FileDescriptor person_;
  FileDescriptor kept_;
  Questioner questioner_;
};

TEST_F(TerminalQuestion, IsAnsweredWithoutEcho) {
  std::string shown;
  bool echoed = true;
  std::thread person([&] {
    shown = shownUntil("? ");
    echoed = echoes();
    EXPECT_EQ(::write(person_.get(), "a secret\n", 9), 9);
  });
  const auto answer = askForSecret("Which one\x1b?", questioner_);
  person.join();
  ASSERT_TRUE(answer) << answer.error().message;
  EXPECT_EQ(answer->text(), "a secret");
  EXPECT_EQ(shown, "Which one?? ");
  EXPECT_FALSE(echoed);
  EXPECT_TRUE(echoes());
  EXPECT_EQ(shownUntil("\n"), "\r\n");
}

TEST_F(TerminalQuestion, IsInterrupted) {
  const FileDescriptor interrupt(::eventfd(1, EFD_CLOEXEC));
  questioner_.interrupt = interrupt.get();
  const auto answer = askForSecret("Which?", questioner_);
  ASSERT_FALSE(answer);
  EXPECT_EQ(answer.error().domain, "Questioner");
  EXPECT_EQ(answer.error().code, kInterrupted);
  EXPECT_TRUE(echoes());
}

TEST_F(TerminalQuestion, HasADeadline) {
  questioner_.deadline = std::chrono::milliseconds(10);
  const auto answer = askForSecret("Which?", questioner_);
  ASSERT_FALSE(answer);
  EXPECT_NE(answer.error().message.find("in time"), std::string::npos);
  EXPECT_TRUE(echoes());
}

class SystemdQuestion : public SecretSourceTest {
 protected:
  vpnctl::Result<vpnctl::Secret> ask(const std::string &script) {
    const std::string program = folder_.write("ask", "#!/bin/sh\n" + script);
    EXPECT_EQ(::chmod(program.c_str(), 0700), 0);
    return askForSecret(
        "Which one?",
        {.terminal = folder_.path("nowhere"), .askPassword = program, .deadline = std::chrono::seconds(20)});
  }
};

TEST_F(SystemdQuestion, IsAskedWhereThereIsNoTerminal) {
  const auto answer = ask("echo \"$*\" >" + folder_.path("arguments") + "; echo 'a secret'");
  ASSERT_TRUE(answer) << answer.error().message;
  EXPECT_EQ(answer->text(), "a secret");
  EXPECT_EQ(folder_.read("arguments"), "--no-tty --id=vpnctl-run --timeout=20 Which one?\n");
}

TEST_F(SystemdQuestion, MayNotBeAnswered) {
  EXPECT_FALSE(ask("exit 1"));
  EXPECT_FALSE(ask("echo half; kill -9 $$"));
}

TEST_F(SystemdQuestion, CannotBeAskedWithoutTheProgram) {
  EXPECT_FALSE(askForSecret("Which?", {.terminal = folder_.path("nowhere"), .askPassword = folder_.path("none")}));
}

}  // namespace
