#include <gtest/gtest.h>

#include <cerrno>

#include "helper/common/SecretUse.h"

namespace helper {
namespace {

using vpnctl::Value;
using Entries = Value::Dictionary;

Value service() {
  return Entries{{"UserDefinedName", "VPN"},
                 {"Interface", Entries{{"Type", "PPP"}, {"SubType", "L2TP"}, {"DeviceName", "x"}}},
                 {"PPP", Entries{{"AuthName", "alice"}, {"CommRemoteAddress", "vpn.example.org"}, {"LCPMTU", 1300}}},
                 {"IPSec", Entries{{"SharedSecret", "ID.SS"}}}};
}

Value with(const std::string &entity, const std::string &key, const Value &entry) {
  Value changed = service();
  Value entries = changed[entity];
  entries.set(key, entry);
  changed.set(entity, entries);
  return changed;
}

TEST(SecretUse, IsWhatDecidesWhereASecretGoes) {
  const SecretUse use = SecretUse::of(service(), 1000);
  EXPECT_EQ(use.owner, 1000U);
  EXPECT_EQ(use.terms, Value(Entries{{"Interface", Entries{{"Type", "PPP"}, {"SubType", "L2TP"}}},
                                     {"PPP", Entries{{"AuthName", "alice"}, {"CommRemoteAddress", "vpn.example.org"}}},
                                     {"IPSec", Entries{{"SharedSecret", "ID.SS"}}}}));
  EXPECT_EQ(SecretUse::of({}, 0).terms, Value(Entries()));
}

TEST(SecretUse, SaysWhatDiffers) {
  const SecretUse use = SecretUse::of(service(), 1000);
  const auto difference = [&](const Value &other) { return use.differenceTo(SecretUse::of(other, 1000)).value_or(""); };
  EXPECT_EQ(difference(service()), "");
  EXPECT_EQ(difference(with("PPP", "LCPMTU", 1400)), "");
  EXPECT_EQ(difference(with("PPP", "CommRemoteAddress", "evil.example.org")), "PPP/CommRemoteAddress");
  EXPECT_EQ(difference(with("PPP", "AuthProtocol", Value::Array{"PAP"})), "PPP/AuthProtocol") << "what was not there";
  EXPECT_EQ(difference(with("Interface", "SubType", "PPTP")), "Interface/SubType");
  EXPECT_EQ(difference(Entries()), "Interface/Type");
}

TEST(StartOptions, MayOnlyChangeWhatIsNoMatterOfSecrets) {
  EXPECT_TRUE(checkStartOptions(service(), {}));
  EXPECT_TRUE(checkStartOptions(service(), service()));
  EXPECT_TRUE(checkStartOptions(service(), Entries{{"PPP", Entries{{"LCPMTU", 1400}, {"LCPEchoInterval", 5}}}}));
  const auto refusal = [](const Value &options) {
    const auto status = checkStartOptions(service(), options);
    return status ? "" : status.error().message;
  };
  EXPECT_EQ(refusal(Entries{{"PPP", Entries{{"AuthName", "alice"}, {"CommRemoteAddress", "evil.example.org"}}}}),
            "a start may not say PPP/CommRemoteAddress otherwise than the stored service");
  EXPECT_EQ(refusal(Entries{{"PPP", "text"}}), "a start may not say PPP otherwise than the stored service");
  EXPECT_EQ(refusal(Entries{{"DNS", Entries{{"ServerAddresses", Value::Array{"192.0.2.1"}}}}}),
            "a start may not say DNS/ServerAddresses otherwise than the stored service");
  EXPECT_EQ(checkStartOptions(service(), Entries{{"IPSec", Entries{{"SharedSecret", "x"}}}}).error().code, EINVAL);
}

}  // namespace
}  // namespace helper
