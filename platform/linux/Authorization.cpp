#include "platform/linux/Authorization.h"

#include <unistd.h>

#include <utility>

#include "platform/linux/HelperLauncher.h"
#include "platform/linux/HelperPath.h"
#include "platform/linux/TextAgent.h"

namespace platform {

namespace {

constexpr AuthorizationFlags kAllFlags = kAuthorizationFlagInteractionAllowed | kAuthorizationFlagExtendRights |
                                         kAuthorizationFlagPartialRights | kAuthorizationFlagDestroyRights |
                                         kAuthorizationFlagPreAuthorize;

bool isWellFormed(const std::vector<AuthorizationItem> &items) {
  for (const auto &item : items)
    if (item.name.empty() || (item.valueLength > 0 && item.value == nullptr)) return false;
  return true;
}

// A desktop's agent goes first. That polkit's text agent would stand back for it by itself ("fallback") works only in a
// session of logind's.
OSStatus authorizeUser(HelperConnection &helper, bool mayInteract) {
  const bool hasTerminal = mayInteract && TextAgent::isPossible();
  const OSStatus status = helper.authorize(mayInteract, hasTerminal).value_or(errAuthorizationToolExecuteFailure);
  if (status != errAuthorizationInteractionNotAllowed || !hasTerminal) return status;
  const auto agent = TextAgent::start();
  return helper.authorize(true, false).value_or(errAuthorizationToolExecuteFailure);
}

OSStatus grantSystemPreferences(Authorization &authorization, AuthorizationFlags flags) {
  if (authorization.helper && authorization.helper->isOpen()) return errAuthorizationSuccess;
  if ((flags & kAuthorizationFlagExtendRights) == 0) return errAuthorizationDenied;
  // Only root may start a helper that is root's.
  const bool isRoot = ::geteuid() == 0;
  auto launched = isRoot ? launchHelper(helperPath()) : callHelper(helperSocket());
  if (!launched) return errAuthorizationToolExecuteFailure;
  auto connection = HelperConnection::connect(std::move(*launched));
  // The helper answers when it is ready, and then the PPP log is there for those who follow it.
  if (!connection || !(*connection)->ping()) return errAuthorizationToolExecuteFailure;
  if (!isRoot) {
    const bool mayInteract = (flags & kAuthorizationFlagInteractionAllowed) != 0;
    const OSStatus status = authorizeUser(**connection, mayInteract);
    if (status != errAuthorizationSuccess) return status;
  }
  authorization.helper = std::move(*connection);
  authorization.helper->makeCurrent();
  return errAuthorizationSuccess;
}

}  // namespace

OSStatus AuthorizationCreate(const AuthorizationRights *rights, const AuthorizationEnvironment *environment,
                             AuthorizationFlags flags, AuthorizationRef *authorization) {
  if ((flags & ~kAllFlags) != 0) return errAuthorizationInvalidFlags;
  auto created = std::make_shared<Authorization>();
  if (rights != nullptr) {
    const OSStatus status = AuthorizationCopyRights(created, *rights, environment, flags, nullptr);
    if (status != errAuthorizationSuccess) return status;
  }
  if (authorization != nullptr) *authorization = std::move(created);
  return errAuthorizationSuccess;
}

OSStatus AuthorizationCopyRights(const AuthorizationRef &authorization, const AuthorizationRights &rights,
                                 const AuthorizationEnvironment *environment, AuthorizationFlags flags,
                                 AuthorizationRights *authorizedRights) {
  if (!authorization) return errAuthorizationInvalidRef;
  if ((flags & ~kAllFlags) != 0) return errAuthorizationInvalidFlags;
  if (!isWellFormed(rights) || (environment != nullptr && !isWellFormed(*environment)))
    return errAuthorizationInvalidSet;
  AuthorizationRights granted;
  for (const auto &right : rights) {
    const OSStatus status =
        right.name == "system.preferences" ? grantSystemPreferences(*authorization, flags) : errAuthorizationDenied;
    if (status == errAuthorizationSuccess)
      granted.push_back(right);
    else if (status != errAuthorizationDenied || (flags & kAuthorizationFlagPartialRights) == 0)
      return status;
  }
  if (authorizedRights != nullptr) *authorizedRights = std::move(granted);
  return errAuthorizationSuccess;
}

}  // namespace platform
