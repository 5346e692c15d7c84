// How a hub makes itself known to the service discovery of its network: a file that describes the service.
//
// An XML service group of one service, _veltrane._tcp at the daemon's port, under the name that the edition gives the
// hub. It is written where the policy says (control server, service_announcement), at start and at each reload, whole
// beside the old one and renamed over it; it stays when the daemon ends, as the hub does.
#ifndef HOST_VT_SERVERD_ANNOUNCEMENT_H
#define HOST_VT_SERVERD_ANNOUNCEMENT_H

#include "vt-serverd/served_policy.h"

namespace vtserverd {

// Write the file when this host is a hub and the policy names one; one error line when that fails. Main thread only.
//
// listener  the socket on which the daemon listens
void AnnounceHub(const ServedPolicy &policy, int listener);

}  // namespace vtserverd

#endif
