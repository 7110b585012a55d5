// The demo store, for trying out signing: a self-signed RSA-2048 and a self-signed EC P-256 certificate for each user.
//
// It is the file demo.pem in ${XDG_DATA_HOME:-$HOME/.local/share}/vex-client-toolkit/ (directory 0700, files 0600). It
// is made on first use, and again when it is damaged or a certificate in it has expired. Processes that want to make it
// at the same time lock demo.lock, so that one makes it and the others use it.
#pragma once

#include "signing/Identity.h"

namespace vextk {

// Throws VCTK_E_DEMO_STORE.
IdentitiesPtr OpenDemoStore();

}  // namespace vextk
