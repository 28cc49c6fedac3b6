#include "helper/link/LinkConfiguration.h"

namespace helper {

foundation::Result<LinkConfiguration> LinkConfiguration::fromPreferences(const foundation::Value &root,
                                                                         const std::string &serviceID) {
  const foundation::Value *service = root["NetworkServices"].find(serviceID);
  if (service == nullptr) return foundation::Error{"Link", 0, "there is no network service " + serviceID};
  const foundation::Value &interface = (*service)["Interface"];
  if (interface["Type"].string() != "PPP" || !interface["SubType"].isString())
    return foundation::Error{"Link", 0, "the network service " + serviceID + " is no PPP service"};
  LinkConfiguration configuration;
  configuration.serviceID = serviceID;
  configuration.tunnelType = interface["SubType"].string();
  configuration.ppp = (*service)["PPP"];
  configuration.ipv4 = (*service)["IPv4"];
  configuration.ipsec = (*service)["IPSec"];
  return configuration;
}

}  // namespace helper
