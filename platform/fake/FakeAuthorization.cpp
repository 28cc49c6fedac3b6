#include "platform/Security.h"
#include "platform/fake/FakePlatform.h"
#include "platform/fake/FakeText.h"

namespace platform {

struct Authorization {};

namespace {

std::string describe(const std::vector<AuthorizationItem> *items) {
  if (items == nullptr) return "null";
  std::string text;
  for (const AuthorizationItem &item : *items) {
    text += text.empty() ? "" : ", ";
    text += "{" + fake::quoted(std::string_view(item.name)) + ", " + std::to_string(item.valueLength) + ", " +
            (item.value == nullptr ? "null" : "value") + ", " + std::to_string(item.flags) + "}";
  }
  return "[" + text + "]";
}

}  // namespace

OSStatus AuthorizationCreate(const AuthorizationRights *rights, const AuthorizationEnvironment *environment,
                             AuthorizationFlags flags, AuthorizationRef *authorization) {
  const auto failure = fake::FakePlatform::instance().enter(
      "AuthorizationCreate", describe(rights) + ", " + describe(environment) + ", " + std::to_string(flags));
  if (failure) return *failure;
  *authorization = std::make_shared<Authorization>();
  fake::FakePlatform::instance().lastAuthorization = *authorization;
  return errAuthorizationSuccess;
}

OSStatus AuthorizationCopyRights(const AuthorizationRef &authorization, const AuthorizationRights &rights,
                                 const AuthorizationEnvironment *environment, AuthorizationFlags flags,
                                 AuthorizationRights *authorizedRights) {
  const auto failure = fake::FakePlatform::instance().enter(
      "AuthorizationCopyRights", fake::reference(authorization, "authorization") + ", " + describe(&rights) + ", " +
                                     describe(environment) + ", " + std::to_string(flags) + ", " +
                                     (authorizedRights == nullptr ? "null" : "authorizedRights"));
  if (failure) return *failure;
  if (authorizedRights != nullptr) *authorizedRights = rights;
  return errAuthorizationSuccess;
}

}  // namespace platform
