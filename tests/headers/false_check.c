/* The record is not 99 bytes. */
#include "check.h"

#include "qpxclient_eci.h"

CHECK(record_has_another_size, sizeof(QPX_ECI_PARMS) == 99);
