// SPDX-License-Identifier: Apache-2.0
// The system's object behind a recording proxy, for the calls that hand an object the program
// holds back to the system: the system may look inside what it gets, a proxy has nothing there.
#pragma once

#include "platform/com.h"

namespace platform::rec {

// The object a proxy forwards to, as the interface the proxy was handed out as; anything
// that is not a proxy comes back as it is.
void* SystemObject(void* object);

template <class Interface>
Interface* SystemObject(Interface* object) {
    return static_cast<Interface*>(SystemObject(static_cast<void*>(object)));
}

}  // namespace platform::rec
