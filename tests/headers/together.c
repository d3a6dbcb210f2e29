/* All public headers in one source, in the order of the alphabet. */
#include "eci_channel.h"
#include "qpxclient.h"
#include "qpxclient_eci.h"
#include "qpxclient_esi.h"

int uses_every_header(QPX_ConnToken_t gateway, QPX_ECI_PARMS* parms, ESI_DETAILS* details,
                      ECI_ChannelToken_t channel);
