#include "platform/SecretFile.h"
#include "platform/fake/FakePlatform.h"

namespace platform {

void tellOfReadableSecrets(const std::string &path) {
  fake::FakePlatform::instance().enter("tellOfReadableSecrets", path);
}

}  // namespace platform
