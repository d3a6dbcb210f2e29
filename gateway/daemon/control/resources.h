// The page and the description of the interface, as they are part of the program.
#ifndef CONTROL_RESOURCES_H
#define CONTROL_RESOURCES_H

namespace control {

extern const char* const kPage;        // gateway/daemon/control/page.html
extern const char* const kDescription; // docs/gateway-control.json

} // namespace control

#endif
