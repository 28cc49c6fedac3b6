#include "tests/helper/network/FakeResolved.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <cstring>

FakeResolved::FakeResolved(sd_event *event, const std::string &path, Mood mood) : event_(event), mood_(mood) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  EXPECT_LT(path.size(), sizeof address.sun_path);
  std::memcpy(address.sun_path, path.data(), path.size());
  listener_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_EQ(::bind(listener_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
  EXPECT_EQ(::listen(listener_.get(), 1), 0);
  listening_ = linux::EventSource::io(event, listener_.get(), EPOLLIN, [this](std::uint32_t) { connectionArrived(); });
}

void FakeResolved::connectionArrived() {
  listening_.reset();
  const int connection = ::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC);
  ASSERT_GE(connection, 0);
  sd_id128_t identifier{};
  sd_id128_randomize(&identifier);
  ASSERT_GE(sd_bus_new(linux::Out(bus_)), 0);
  ASSERT_GE(sd_bus_set_fd(bus_.get(), connection, connection), 0);
  ASSERT_GE(sd_bus_set_server(bus_.get(), 1, identifier), 0);
  ASSERT_GE(sd_bus_add_filter(bus_.get(), nullptr, called, this), 0);
  ASSERT_GE(sd_bus_start(bus_.get()), 0);
  ASSERT_GE(sd_bus_attach_event(bus_.get(), event_, SD_EVENT_PRIORITY_NORMAL), 0);
}

int FakeResolved::called(sd_bus_message *message, void *self, sd_bus_error *) {
  return static_cast<FakeResolved *>(self)->answer(message);
}

int FakeResolved::answer(sd_bus_message *message) {
  if (sd_bus_message_is_method_call(message, nullptr, nullptr) <= 0) return 0;
  if (mood_ == Mood::silent) return 1;
  if (sd_bus_message_is_method_call(message, "org.freedesktop.DBus", "Hello") > 0)
    return sd_bus_reply_method_return(message, "s", ":1.7");
  if (mood_ == Mood::absent)
    return sd_bus_reply_method_errorf(message, SD_BUS_ERROR_SERVICE_UNKNOWN, "Nobody has that name");
  calls.push_back(describe(message));
  if (mood_ == Mood::refusing)
    return sd_bus_reply_method_errorf(message, SD_BUS_ERROR_INVALID_ARGS, "This is no link of mine");
  return sd_bus_reply_method_return(message, nullptr);
}

std::string FakeResolved::describe(sd_bus_message *message) {
  std::string text = sd_bus_message_get_member(message);
  int index = 0;
  EXPECT_GE(sd_bus_message_read_basic(message, 'i', &index), 0);
  text += " " + std::to_string(index);
  const std::string signature = sd_bus_message_get_signature(message, 1);
  if (signature == "ib") {
    int yes = 0;
    EXPECT_GE(sd_bus_message_read_basic(message, 'b', &yes), 0);
    return text + (yes ? " true" : " false");
  }
  if (signature == "ia(sb)") {
    EXPECT_GT(sd_bus_message_enter_container(message, 'a', "(sb)"), 0);
    const char *domain = nullptr;
    int routeOnly = 0;
    while (sd_bus_message_read(message, "(sb)", &domain, &routeOnly) > 0)
      text += std::string(routeOnly ? " ~" : " ") + domain;
    return text;
  }
  EXPECT_EQ(signature, "ia(iay)");
  EXPECT_GT(sd_bus_message_enter_container(message, 'a', "(iay)"), 0);
  while (sd_bus_message_enter_container(message, 'r', "iay") > 0) {
    int family = 0;
    const void *address = nullptr;
    size_t size = 0;
    EXPECT_GT(sd_bus_message_read_basic(message, 'i', &family), 0);
    EXPECT_GT(sd_bus_message_read_array(message, 'y', &address, &size), 0);
    std::array<char, INET6_ADDRSTRLEN> buffer{};
    EXPECT_EQ(size, sizeof(in_addr));
    text += std::string(" ") + inet_ntop(family, address, buffer.data(), buffer.size());
    EXPECT_GE(sd_bus_message_exit_container(message), 0);
  }
  return text;
}
