#include "helper/ppp/PluginPath.h"

namespace helper {

const char *pluginPath() { return VPNCTL_PLUGIN_PATH; }

}  // namespace helper
