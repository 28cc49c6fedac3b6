// The connector of the protocol "pptp".
//
// Thread rule: TNConnectorPPPService's.

#pragma once

#include "qolmhelper/TNConnectorPPPService.h"

namespace TN {

class TNConnectorPPTP : public TNConnectorPPPService {
 public:
  using TNConnectorPPPService::TNConnectorPPPService;

 protected:
  const Protocol &protocol() const override;
};

}  // namespace TN
