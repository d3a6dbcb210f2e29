/*
 * eci_channel.h - channels and containers.
 *
 * A channel is a named set of named containers, sent on a call in place of a COMMAREA
 * (QPX_ECI_Execute_Channel in qpxclient_eci.h). The conventions of qpxclient.h hold.
 *
 * Names of channels and containers have 1 to 16 characters out of the letters and digits and
 *     < > $ @ # / % & ? ! : | " = ' ; . - _
 * Upper and lower case differ. A container's name is unique on its channel; channels may share
 * one.
 *
 * A container is binary (ECI_BIT) or characters (ECI_CHAR). Characters carry the number of
 * their code page, a CCSID such as 819 (ISO 8859-1) or 1208 (UTF-8); the library hands it on and
 * never converts data.
 *
 * Any number of threads may work on one channel: each call holds it for its length. While a
 * program call has the channel, every other call on it waits, without limit, the calling thread's
 * own too: a synchronous call has it until it returns, an asynchronous one until its reply is
 * collected or its connection is closed.
 *
 * A handle is valid from the creation until the deletion of its channel. No thread may begin a
 * call with it once a deletion has begun; a call that is already waiting for the channel gets
 * ECI_ERR_INVALID_CHANNEL. What is no channel's handle gets the same, and is never followed; but
 * the handle of a deleted channel may come to be that of a new one. ECI_COMMIT and ECI_BACKOUT do
 * without the channel; see QPX_ECI_Execute_Channel.
 *
 * Example: a channel with one container, and its names read back.
 *
 *     #include "qpxclient_eci.h"
 *     ...
 *     ECI_ChannelToken_t channel;
 *     ECI_CONTAINER_INFO info;
 *     int rc = ECI_createChannel("ORDER", &channel);
 *     if (rc == ECI_NO_ERROR)
 *         rc = ECI_createContainer(channel, "CUSTOMER", ECI_CHAR, 0, "4711", 4);
 *     if (rc == ECI_NO_ERROR)
 *         rc = ECI_getFirstContainer(channel, &info);
 *     while (rc == ECI_NO_ERROR) {
 *         printf("%s, %lu bytes\n", info.name, (unsigned long)info.dataLength);
 *         rc = ECI_getNextContainer(channel, &info);
 *     }
 *     if (rc == ECI_ERR_ENDOFCONTAINERS)
 *         rc = ECI_deleteChannel(&channel);
 */
#ifndef ECI_CHANNEL_H
#define ECI_CHANNEL_H

#include <stddef.h>

/* Marks the calls that the library exports; of no concern to applications. */
#ifndef QPX_API
#if defined(QPX_BUILDING_LIBRARY) && defined(__GNUC__)
#define QPX_API __attribute__((visibility("default")))
#else
#define QPX_API
#endif
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Return codes of the channel and container family ----------------------------------- */

/* ECI_NO_ERROR, ECI_ERR_INVALID_DATA_LENGTH and ECI_ERR_SYSTEM_ERROR of qpxclient_eci.h are
 * also used here. */
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

/* ---- Channels ---------------------------------------------------------------------------- */

/* The handle of a channel; opaque. */
typedef struct _ECI_Channel_t* ECI_ChannelToken_t;

/* Room for a name and its terminator. */
#define ECI_NAME_SIZE 17

/*
 * Creates an empty channel and stores its handle in *tokPtr.
 *
 * Errors: ECI_ERR_NULLCHANNELPTR, ECI_ERR_INVALID_NAME, ECI_ERR_MEMORY_SHORTAGE,
 * ECI_ERR_CHANNELLOCKFAIL, ECI_ERR_SYSTEM_ERROR; *tokPtr is then unchanged.
 */
QPX_API int ECI_createChannel(const char* name, ECI_ChannelToken_t* tokPtr);

/*
 * Deletes *tokPtr with all its containers, whose data is overwritten, and sets *tokPtr to NULL.
 * Waits, without limit, until no program call uses the channel.
 *
 * Errors: ECI_ERR_NULLCHANNELPTR, ECI_ERR_INVALID_CHANNEL, ECI_ERR_SYSTEM_ERROR.
 */
QPX_API int ECI_deleteChannel(ECI_ChannelToken_t* tokPtr);

/*
 * Deletes every channel of the process, as ECI_deleteChannel does but without waiting for those
 * who use one: no other thread may be at work on a channel, and no reply may still come for one.
 * A call that is waiting for a channel gets ECI_ERR_INVALID_CHANNEL. Every handle is invalid
 * afterwards. Error: ECI_ERR_SYSTEM_ERROR.
 */
QPX_API int ECI_deleteAllChannels(void);

/*
 * Writes the channel's name, NUL-terminated, to the ECI_NAME_SIZE bytes at nameBuffer.
 *
 * Errors: ECI_ERR_INVALID_CHANNEL, ECI_ERR_NULLPTR, ECI_ERR_SYSTEM_ERROR.
 */
QPX_API int ECI_getChannelName(ECI_ChannelToken_t chanTok, char* nameBuffer);

/* Writes all channels and their containers, names, types, code pages and lengths but not their
 * data, to the trace destination, whatever the trace level. Errors: ECI_ERR_MEMORY_SHORTAGE,
 * ECI_ERR_SYSTEM_ERROR. */
QPX_API int QPX_ECI_dumpChannels(void);

/* ---- Containers -------------------------------------------------------------------------- */

/* The type of a container's data; 4 bytes. */
typedef enum _ECI_CONTAINER_TYPE {
    ECI_BIT = 1, /* binary data */
    ECI_CHAR = 2 /* characters */
} ECI_CONTAINER_TYPE;

#pragma pack(push, 1)
/* What a container is; 29 bytes in a 32-bit program, without padding. */
typedef struct _ECI_CONTAINER_INFO {
    char name[ECI_NAME_SIZE]; /* NUL-terminated */
    ECI_CONTAINER_TYPE type;
    int ccsid;         /* the code page of an ECI_CHAR container; 0 for ECI_BIT */
    size_t dataLength; /* bytes */
} ECI_CONTAINER_INFO;
#pragma pack(pop)

/*
 * Creates a container with a copy of the dataLength bytes at data, which may be NULL for 0.
 *
 * ccsid  the code page of an ECI_CHAR container; 0 means that of the channel. A channel that
 *        has none yet gets it from its first ECI_CHAR container: its ccsid or, for 0, that of
 *        the local code page. This goes by the language in LANG, not by the encoding:
 *        en_US.UTF-8 gives 819. Give 1208 for UTF-8. Not used for ECI_BIT.
 *
 * The first call of this, or of QPX_ECI_Execute_Channel, sets the locale of the process from the
 * environment, as setlocale(LC_ALL, "") does. A program with a locale of its own sets it
 * afterwards.
 *
 * Errors: ECI_ERR_INVALID_CHANNEL, ECI_ERR_INVALID_TYPE, ECI_ERR_INVALID_DATA_LENGTH (no data
 * for a length), ECI_ERR_INVALID_NAME, ECI_ERR_CONTAINER_EXISTS, ECI_ERR_MEMORY_SHORTAGE,
 * ECI_ERR_SYSTEM_ERROR.
 */
QPX_API int ECI_createContainer(ECI_ChannelToken_t chanTok, const char* name,
                                ECI_CONTAINER_TYPE type, int ccsid, const void* data,
                                size_t dataLength);

/*
 * Deletes a container; its data is overwritten. Browsing goes on with the container that
 * followed it.
 *
 * Errors: ECI_ERR_INVALID_CHANNEL, ECI_ERR_INVALID_NAME, ECI_ERR_CONTAINER_NOTFOUND,
 * ECI_ERR_SYSTEM_ERROR.
 */
QPX_API int ECI_deleteContainer(ECI_ChannelToken_t chanTok, const char* name);

/*
 * Browse the containers of a channel, the newest first. A channel has one browse position, which
 * all threads share: ECI_getFirstContainer sets it to the newest container, ECI_getNextContainer
 * moves it on. Behind the last container the result is ECI_ERR_ENDOFCONTAINERS once, and the
 * next ECI_getNextContainer begins anew; on a channel without containers it always is.
 *
 * Errors: ECI_ERR_INVALID_CHANNEL, ECI_ERR_NULLINFOPTR and ECI_ERR_ENDOFCONTAINERS, which leave
 * *infoPtr unchanged, and ECI_ERR_SYSTEM_ERROR.
 */
QPX_API int ECI_getFirstContainer(ECI_ChannelToken_t chanTok, ECI_CONTAINER_INFO* infoPtr);
QPX_API int ECI_getNextContainer(ECI_ChannelToken_t chanTok, ECI_CONTAINER_INFO* infoPtr);

/*
 * Describes a container. The browse position stays.
 *
 * Errors: ECI_ERR_INVALID_CHANNEL, ECI_ERR_NULLINFOPTR, ECI_ERR_INVALID_NAME,
 * ECI_ERR_CONTAINER_NOTFOUND, ECI_ERR_SYSTEM_ERROR.
 */
QPX_API int ECI_getContainerInfo(ECI_ChannelToken_t chanTok, const char* name,
                                 ECI_CONTAINER_INFO* infoPtr);

/*
 * Copies at most length bytes of a container's data, from offset on, to buffer. Stores in
 * *bytesReadPtr, if not NULL, how many that were: 0, which is no error, for an offset at or
 * behind the end.
 *
 * Errors: ECI_ERR_INVALID_CHANNEL, ECI_ERR_NULLPTR (buffer), ECI_ERR_INVALID_NAME,
 * ECI_ERR_CONTAINER_NOTFOUND, ECI_ERR_SYSTEM_ERROR.
 */
QPX_API int ECI_getContainerData(ECI_ChannelToken_t chanTok, const char* name, void* buffer,
                                 size_t length, size_t offset, size_t* bytesReadPtr);

/*
 * Replaces a container's data by a copy of the dataLength bytes at data, which may be NULL for
 * 0. Type and code page stay.
 *
 * Errors: ECI_ERR_INVALID_CHANNEL, ECI_ERR_INVALID_DATA_LENGTH (no data for a length),
 * ECI_ERR_INVALID_NAME, ECI_ERR_CONTAINER_NOTFOUND, ECI_ERR_MEMORY_SHORTAGE (the container is
 * then empty), ECI_ERR_SYSTEM_ERROR.
 */
QPX_API int ECI_setContainerData(ECI_ChannelToken_t chanTok, const char* name, const void* data,
                                 size_t dataLength);

#ifdef __cplusplus
}
#endif

#endif
