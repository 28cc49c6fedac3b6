// A link that touches nothing: it plays a run of phases that the service's server address names.
//
//   "up"       comes up, one phase per turn of the event loop; a stop takes it down with LastCause 5
//   "at-once"  the same, but every phase of coming up is told inside start()
//   "refused"  its account is refused: comes down by itself with LastCause 19
//   "dies"     the helper's process ends at once when it is up
//   "stuck"    never ends after a stop: its owner must lose patience
//   "throws"   has no descriptor left when it is started
//   "throws-later"  the same in the loop's next turn
// Any other address is an error, as for a service that is none.

#pragma once

#include "helper/link/LinkFactory.h"

namespace helper::testing {

// EVENT outlives the links.
LinkFactory scriptedLinks(sd_event *event);

}  // namespace helper::testing
