#include "qolmhelper/TNConnectorPPTP.h"

#include <cstdio>

#include "TNUtils/TNKeyChain.h"
#include "qolmhelper/PPPServiceCreation.h"

namespace TN {
namespace {

constexpr PPPServiceProtocol kPPTP{.interfaceType = platform::kSCNetworkInterfaceTypePPTP,
                                   .noInterface = "Error creating PPTP interface!\n",
                                   .needsPreferences = false,
                                   .configureInterface = nullptr};

}  // namespace

platform::SCNetworkConnectionRef TNConnectorPPTP::connection() {
  return connection_.get([this] { createConnection(); });
}

void TNConnectorPPTP::connect() {
  connection_.makeOnThisThread();
  std::fputs("Starting pptp connection...\n", stderr);
  TNConnectorPPP::connect();
}

std::int32_t TNConnectorPPTP::createConnection() {
  std::int32_t error = platform::kSCStatusOK;
  const std::optional<PPPService> service = createPPPService(*this, kPPTP, &error);
  if (!service) return error;
  storePasswordForServiceUID(service->serviceID);  // whether or not it was saved
  connection_.set(createPPPConnection(*service, this));
  return platform::kSCStatusOK;
}

void TNConnectorPPTP::storePasswordForServiceUID(const Text &serviceID) {
  TNKeyChain::storePasswordsForService(serviceID, sharedSecret(), username(), password());
}

}  // namespace TN
