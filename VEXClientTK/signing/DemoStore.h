// The demo store: one self-signed RSA-2048 and one EC P-256 certificate of the user's own, to try signing with.
//
// It lies in ${XDG_DATA_HOME:-$HOME/.local/share}/vex-client-toolkit/ (directory 0700, files 0600) as demo.pem, is made
// on first use and made anew when it is damaged or a certificate in it has expired. Processes that make it at once
// take turns on demo.lock and end up with the same one.
#pragma once

#include "signing/Identity.h"

namespace vextk {

// Throws VCTK_E_DEMO_STORE.
Identities OpenDemoStore();

}  // namespace vextk
