/*
 * eci_channel.h - channels and containers.
 *
 * A channel is a named set of named containers. It stands for its handle alone here; the
 * conventions of qpxclient.h hold.
 */
#ifndef ECI_CHANNEL_H
#define ECI_CHANNEL_H

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Return codes of the channel and container family ----------------------------------- */

#define ECI_ERR_INVALID_CHANNEL      (-50)  /* the handle is NULL or no channel's */
#define ECI_ERR_INVALID_NAME         (-51)  /* a name is not 1 to 16 allowed characters */
#define ECI_ERR_NULLCHANNELPTR       (-52)  /* the pointer to the handle is NULL */
#define ECI_ERR_CHANNELLOCKFAIL      (-53)  /* the channel's lock or event could not be created */
#define ECI_ERR_ENDOFCONTAINERS      (-54)  /* there is no further container */
#define ECI_ERR_NULLINFOPTR          (-55)  /* the pointer to the information record is NULL */
#define ECI_ERR_INVALID_TYPE         (-56)  /* the container type is neither ECI_BIT nor ECI_CHAR */
#define ECI_ERR_CONTAINER_NOTFOUND   (-58)  /* the channel has no container of that name */
#define ECI_ERR_CONTAINER_EXISTS     (-59)  /* the channel has a container of that name */
#define ECI_ERR_COMMAREA_AND_CHANNEL (-60)  /* a call names a channel and a COMMAREA */
#define ECI_ERR_NULLPTR              (-109) /* a required pointer is NULL */
#define ECI_ERR_MEMORY_SHORTAGE      (-111) /* memory could not be allocated */
#define ECI_ERR_LOCKFAIL             (-121) /* a lock could not be taken */

/* The handle of a channel; opaque. */
typedef struct _ECI_Channel_t* ECI_ChannelToken_t;

#ifdef __cplusplus
}
#endif

#endif
