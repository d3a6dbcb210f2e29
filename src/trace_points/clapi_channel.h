/* Trace points of clapi_channel: 1300 to 1476. */
#ifndef TRACE_POINTS_CLAPI_CHANNEL_H
#define TRACE_POINTS_CLAPI_CHANNEL_H

#include "clapi_diag.h"

namespace tp::ECI_createChannel {
constexpr TracePoint entry       = tpEntry(1300, "API.ECI_createChannel(name=%s, tokPtr=%p)\n");
constexpr TracePoint nullPtr     = tpExc  (1301, "API.ECI_createChannel() tokPtr is NULL\n");
constexpr TracePoint noMemory    = tpExc  (1302, "API.ECI_createChannel() Failed to allocate %d bytes for channel\n");
constexpr TracePoint noLock      = tpExc  (1303, "API.ECI_createChannel() Failed to initialize serial lock\n");
constexpr TracePoint noEvent     = tpExc  (1304, "API.ECI_createChannel() Failed to create channel unlocked event\n");
constexpr TracePoint created     = tpDebug(1305, "API.ECI_createChannel() New channel \"%.16s\" created (%p)\n").fromLevel(TRACE_EVENTS);
constexpr TracePoint noListLock  = tpExc  (1306, "API.ECI_createChannel() Failed to lock channel list\n");
constexpr TracePoint notReleased = tpExc  (1307, "API.ECI_createChannel() Failed to release channel list lock\n");
constexpr TracePoint exit        = tpExit (1309, "API.ECI_createChannel() rc=%d (%s)\n");
}

namespace tp::ECI_deleteChannel {
constexpr TracePoint notUnlocked      = tpExc  (1308, "API.ECI_deleteChannel() Failed to unlock channel\n");
constexpr TracePoint entry            = tpEntry(1310, "API.ECI_deleteChannel(tokPtr=%p)\n");
constexpr TracePoint nullPtr          = tpExc  (1311, "API.ECI_deleteChannel() tokPtr is NULL\n");
constexpr TracePoint nullChannel      = tpExc  (1312, "API.ECI_deleteChannel() *tokPtr is NULL\n");
constexpr TracePoint noListLock       = tpExc  (1313, "API.ECI_deleteChannel() Failed to lock channel list\n");
constexpr TracePoint exit             = tpExit (1314, "API.ECI_deleteChannel() rc=%d (%s)\n");
constexpr TracePoint freeingData      = tpDebug(1420, "API.ECI_deleteChannel() Freeing %lu bytes of container data (%p)\n");
constexpr TracePoint releasedLock     = tpDebug(1421, "API.ECI_deleteChannel() Released lock for channel %p, now deleting\n");
constexpr TracePoint deleted          = tpDebug(1422, "API.ECI_deleteChannel() Deleted channel \"%.16s\" (%p)\n");
constexpr TracePoint deletedContainer = tpDebug(1423, "API.ECI_deleteChannel() Deleted container \"%.16s\" (%p)\n").fromLevel(TRACE_EVENTS);
constexpr TracePoint listNotReleased  = tpExc  (1424, "API.ECI_deleteChannel() Failed to release channel list lock\n");
}

namespace tp::ECI_getChannelName {
constexpr TracePoint entry       = tpEntry(1320, "API.ECI_getChannelName(chanTok=%p, nameBuffer=%p)\n");
constexpr TracePoint nullChannel = tpExc  (1321, "API.ECI_getChannelName() chanTok is NULL\n");
constexpr TracePoint nullBuffer  = tpExc  (1322, "API.ECI_getChannelName() nameBuffer is NULL\n");
constexpr TracePoint notUnlocked = tpExc  (1323, "API.ECI_getChannelName() Failed to unlock channel\n");
constexpr TracePoint exit        = tpExit (1324, "API.ECI_getChannelName() rc=%d (%s)\n");
}

namespace tp::ECI_createContainer {
constexpr TracePoint entry              = tpEntry(1325, "API.ECI_createContainer(chanTok=%p, name=%s, type=%d, ccsid=%d, data=%p, dataLength=%lu)\n");
constexpr TracePoint nullChannel        = tpExc  (1326, "API.ECI_createContainer() chanTok is NULL\n");
constexpr TracePoint badType            = tpExc  (1327, "API.ECI_createContainer() type is invalid (%d)\n");
constexpr TracePoint nullData           = tpExc  (1328, "API.ECI_createContainer() data is NULL when dataLength is %lu\n");
constexpr TracePoint exists             = tpExc  (1329, "API.ECI_createContainer() Container \"%.16s\" already exists in channel \"%.16s\"\n");
constexpr TracePoint noMemory           = tpExc  (1330, "API.ECI_createContainer() Failed to allocate %d bytes for container\n");
constexpr TracePoint ccsidFromContainer = tpDebug(1331, "API.ECI_createContainer() Channel CCSID set to %d from Container\n");
constexpr TracePoint ccsidFromLocale    = tpDebug(1332, "API.ECI_createContainer() Channel CCSID set to %d from locale\n");
constexpr TracePoint containerCcsid     = tpDebug(1333, "API.ECI_createContainer() Container CCSID set to %d\n");
constexpr TracePoint noDataMemory       = tpExc  (1334, "API.ECI_createContainer() Failed to allocate %lu bytes for container data\n");
constexpr TracePoint data               = tpData (1335, "API.ECI_createContainer() data=%p len=%lu stopword=%8.8X\n");
constexpr TracePoint created            = tpDebug(1336, "API.ECI_createContainer() Created container \"%.16s\" (%p) in channel \"%.16s\" (%p)\n");
// Deliberate: three n. Scripts that read traces know the line so.
constexpr TracePoint notUnlocked        = tpExc  (1337, "API.ECI_createContainer() Failed to unlock channnel\n");
constexpr TracePoint exit               = tpExit (1338, "API.ECI_createContainer() rc=%d (%s)\n");
}

namespace tp::ECI_deleteContainer {
constexpr TracePoint entry       = tpEntry(1339, "API.ECI_deleteContainer(chanTok=%p, name=%s)\n");
constexpr TracePoint nullChannel = tpExc  (1340, "API.ECI_deleteContainer() chanTok is NULL\n");
constexpr TracePoint notFound    = tpExc  (1341, "API.ECI_deleteContainer() Container \"%.16s\" does not exist in channel \"%.16s\"\n");
constexpr TracePoint current     = tpDebug(1342, "API.ECI_deleteContainer() Current container is now \"%.16s\"\n");
constexpr TracePoint noCurrent   = tpDebug(1343, "API.ECI_deleteContainer() Current container is now NULL\n");
constexpr TracePoint freeingData = tpDebug(1344, "API.ECI_deleteContainer() Freeing %lu bytes of container data (%p)\n");
constexpr TracePoint deleted     = tpDebug(1345, "API.ECI_deleteContainer() Deleted container \"%.16s\" (%p)\n");
constexpr TracePoint notUnlocked = tpExc  (1346, "API.ECI_deleteContainer() Failed to unlock channel\n");
constexpr TracePoint exit        = tpExit (1347, "API.ECI_deleteContainer() rc=%d (%s)\n");
}

namespace tp::getCurrentCcsid {
constexpr TracePoint resultCcsid = tpDebug(1348, "clapi_channel.getCurrentCcsid() default local CCSID is %d\n");
constexpr TracePoint noListLock  = tpExc  (1356, "clapi_channel.getCurrentCcsid() Failed to lock channel list for CCSID check\n");
constexpr TracePoint notReleased = tpExc  (1357, "clapi_channel.getCurrentCcsid() Failed to release lock for channel (%p)\n");
// Deliberate: no parentheses behind the function's name. Scripts that read traces know the line so.
constexpr TracePoint entry       = tpEntry(1435, "clapi_channel.getCurrentCcsid\n");
constexpr TracePoint noLang      = tpDebug(1437, "clapi_channel.getCurrentCcsid() LANG environment variable not set, defaulting to CCSID %d\n");
constexpr TracePoint mapped      = tpDebug(1438, "clapi_channel.getCurrentCcsid() Mapped codeset %s to CCSID %d\n");
constexpr TracePoint notMapped   = tpExc  (1439, "clapi_channel.getCurrentCcsid() Unable to find a CCSID for codeset %s\n");
constexpr TracePoint exit        = tpExit (1441, "clapi_channel.getCurrentCcsid() rc=%d\n");
}

namespace tp::ECI_getFirstContainer {
constexpr TracePoint entry       = tpEntry(1349, "API.ECI_getFirstContainer(chanTok=%p, infoPtr=%p)\n");
constexpr TracePoint nullChannel = tpExc  (1350, "API.ECI_getFirstContainer() chanTok is NULL\n");
constexpr TracePoint nullInfo    = tpExc  (1351, "API.ECI_getFirstContainer() infoPtr is NULL\n");
constexpr TracePoint empty       = tpExc  (1352, "API.ECI_getFirstContainer() Channel \"%.16s\" has no containers\n");
constexpr TracePoint current     = tpDebug(1353, "API.ECI_getFirstContainer() Current container is \"%.16s\"\n");
constexpr TracePoint notUnlocked = tpExc  (1354, "API.ECI_getFirstContainer() Failed to unlock channel\n");
constexpr TracePoint exit        = tpExit (1355, "API.ECI_getFirstContainer() rc=%d (%s)\n");
}

namespace tp::ECI_getNextContainer {
constexpr TracePoint entry       = tpEntry(1358, "API.ECI_getNextContainer(chanTok=%p, infoPtr=%p)\n");
constexpr TracePoint nullChannel = tpExc  (1359, "API.ECI_getNextContainer() chanTok is NULL\n");
constexpr TracePoint nullInfo    = tpExc  (1360, "API.ECI_getNextContainer() infoPtr is NULL\n");
constexpr TracePoint noMore      = tpExc  (1361, "API.ECI_getNextContainer() No more containers in channel \"%.16s\"\n");
constexpr TracePoint restart     = tpDebug(1362, "API.ECI_getNextContainer() Current container is NULL, retrieving first container\n");
constexpr TracePoint empty       = tpExc  (1363, "API.ECI_getNextContainer() Channel \"%.16s\" has no containers\n");
constexpr TracePoint current     = tpDebug(1364, "API.ECI_getNextContainer() Current container is \"%.16s\"\n");
constexpr TracePoint notUnlocked = tpExc  (1365, "API.ECI_getNextContainer() Failed to unlock channel\n");
constexpr TracePoint exit        = tpExit (1366, "API.ECI_getNextContainer() rc=%d (%s)\n");
}

namespace tp::ECI_getContainerInfo {
constexpr TracePoint entry       = tpEntry(1367, "API.ECI_getContainerInfo(chanTok=%p, name=%s, infoPtr=%p)\n");
constexpr TracePoint nullChannel = tpExc  (1368, "API.ECI_getContainerInfo() chanTok is NULL\n");
constexpr TracePoint nullInfo    = tpExc  (1369, "API.ECI_getContainerInfo() infoPtr is NULL\n");
constexpr TracePoint notFound    = tpExc  (1370, "API.ECI_getContainerInfo() Container \"%.16s\" does not exist in channel \"%.16s\"\n");
constexpr TracePoint notUnlocked = tpExc  (1371, "API.ECI_getContainerInfo() Failed to unlock channel\n");
constexpr TracePoint exit        = tpExit (1372, "API.ECI_getContainerInfo() rc=%d (%s)\n");
}

namespace tp::ECI_getContainerData {
constexpr TracePoint entry       = tpEntry(1373, "API.ECI_getContainerData(chanTok=%p, name=%s, buffer=%p, length=%lu, offset=%lu, bytesReadPtr=%p)\n");
constexpr TracePoint nullChannel = tpExc  (1374, "API.ECI_getContainerData() chanTok is NULL\n");
constexpr TracePoint nullBuffer  = tpExc  (1375, "API.ECI_getContainerData() buffer is NULL\n");
constexpr TracePoint notFound    = tpExc  (1376, "API.ECI_getContainerData() Container \"%.16s\" does not exist in channel \"%.16s\"\n");
constexpr TracePoint copied      = tpDebug(1377, "API.ECI_getContainerData() Copied %lu bytes into %p\n");
constexpr TracePoint noData      = tpDebug(1378, "API.ECI_getContainerData() No data to copy\n");
constexpr TracePoint notUnlocked = tpExc  (1379, "API.ECI_getContainerData() Failed to unlock channel\n");
constexpr TracePoint exit        = tpExit (1380, "API.ECI_getContainerData() rc=%d (%s)\n");
}

namespace tp::ECI_setContainerData {
constexpr TracePoint entry       = tpEntry(1381, "API.ECI_setContainerData(chanTok=%p, name=%s, data=%p, dataLength=%lu)\n");
constexpr TracePoint nullChannel = tpExc  (1382, "API.ECI_setContainerData() chanTok is NULL\n");
constexpr TracePoint nullData    = tpExc  (1383, "API.ECI_setContainerData() data is NULL when dataLength is %lu\n");
constexpr TracePoint notFound    = tpExc  (1384, "API.ECI_setContainerData() Container \"%.16s\" does not exist in channel \"%.16s\"\n");
constexpr TracePoint freeingData = tpDebug(1385, "API.ECI_setContainerData() Freeing %lu bytes of container data (%p)\n");
constexpr TracePoint noMemory    = tpExc  (1386, "API.ECI_setContainerData() Failed to allocate %lu bytes for container data\n");
constexpr TracePoint data        = tpData (1387, "API.ECI_setContainerData() data=%p len=%lu stopword=%8.8X\n");
constexpr TracePoint notUnlocked = tpExc  (1388, "API.ECI_setContainerData() Failed to unlock channel\n");
constexpr TracePoint exit        = tpExit (1389, "API.ECI_setContainerData() rc=%d (%s)\n");
}

namespace tp::validateName {
constexpr TracePoint entry        = tpEntry(1400, "clapi_channel.validateName(name=%s)\n");
constexpr TracePoint nullName     = tpExc  (1401, "clapi_channel.validateName() name is NULL\n");
constexpr TracePoint tooLong      = tpExc  (1402, "clapi_channel.validateName() name length exceeds %d\n");
constexpr TracePoint badCharacter = tpExc  (1403, "clapi_channel.validateName() name contains invalid character '%c'\n");
constexpr TracePoint exit         = tpExit (1404, "clapi_channel.validateName() rc=%d (%s)\n");
constexpr TracePoint empty        = tpExc  (1407, "clapi_channel.validateName() name is zero length\n");
}

namespace tp::QPX_ECI_dumpChannels {
constexpr TracePoint entry       = tpEntry(1410, "API.QPX_ECI_dumpChannels()\n");
constexpr TracePoint noListLock  = tpExc  (1411, "API.QPX_ECI_dumpChannels() Failed to lock channel list\n");
constexpr TracePoint notReleased = tpExc  (1412, "API.QPX_ECI_dumpChannels() Failed to release channel list lock\n");
constexpr TracePoint noMemory    = tpExc  (1413, "API.QPX_ECI_dumpChannels() Failed to allocate memory for the dump\n");
constexpr TracePoint exit        = tpExit (1419, "API.QPX_ECI_dumpChannels() rc=%d (%s)\n");
}

namespace tp::ECI_deleteAllChannels {
constexpr TracePoint entry            = tpEntry(1425, "API.ECI_deleteAllChannels()\n");
constexpr TracePoint destroying       = tpDebug(1426, "API.ECI_deleteAllChannels() Destroying event and lock for channel \"%.16s\" (%p)\n");
constexpr TracePoint freeingData      = tpDebug(1427, "API.ECI_deleteAllChannels() Freeing %lu bytes of container data (%p)\n");
constexpr TracePoint deletedContainer = tpDebug(1428, "API.ECI_deleteAllChannels() Deleted container \"%.16s\" (%p)\n").fromLevel(TRACE_EVENTS);
constexpr TracePoint deleted          = tpDebug(1429, "API.ECI_deleteAllChannels() Deleted channel \"%.16s\" (%p)\n");
constexpr TracePoint exit             = tpExit (1430, "API.ECI_deleteAllChannels() rc=%d (%s)\n");
constexpr TracePoint noListLock       = tpExc  (1431, "API.ECI_deleteAllChannels() Failed to lock channel list\n");
constexpr TracePoint notReleased      = tpExc  (1432, "API.ECI_deleteAllChannels() Failed to release channel list lock\n");
}

namespace tp::lockChannel {
constexpr TracePoint entry        = tpEntry(1460, "clapi_channel.lockChannel(chanTok=%p)\n");
constexpr TracePoint nullChannel  = tpExc  (1461, "clapi_channel.lockChannel() chanTok is NULL\n");
constexpr TracePoint noChannel    = tpExc  (1462, "clapi_channel.lockChannel() chanTok (%p) is not a channel\n");
constexpr TracePoint waiting      = tpDebug(1463, "clapi_channel.lockChannel() Waiting for channel \"%.16s\" (%p)\n");
constexpr TracePoint notReleased  = tpExc  (1464, "clapi_channel.lockChannel() Failed to release lock for channel (%p)\n");
constexpr TracePoint waitFailed   = tpExc  (1465, "clapi_channel.lockChannel() Failed to wait on unlockEvent for channel (%p)\n");
constexpr TracePoint noLock       = tpExc  (1466, "clapi_channel.lockChannel() Failed to acquire lock for channel (%p)\n");
constexpr TracePoint notArmed     = tpExc  (1467, "clapi_channel.lockChannel() Failed to set unlockEvent for channel (%p)\n");
constexpr TracePoint finished     = tpDebug(1468, "clapi_channel.lockChannel() Finished waiting for channel \"%.16s\" (%p)\n").fromLevel(TRACE_EVENTS);
constexpr TracePoint stillHeld    = tpExc  (1469, "clapi_channel.lockChannel() Failed to release lock for channel (%p)\n");
constexpr TracePoint exit         = tpExit (1470, "clapi_channel.lockChannel() rc=%d (%s)\n");
}

namespace tp::unlockChannel {
constexpr TracePoint entry       = tpEntry(1471, "clapi_channel.unlockChannel(chanTok=%p)\n");
constexpr TracePoint nullChannel = tpExc  (1472, "clapi_channel.unlockChannel() chanTok is NULL\n");
constexpr TracePoint noChannel   = tpExc  (1473, "clapi_channel.unlockChannel() chanTok (%p) is not a channel\n");
constexpr TracePoint notPosted   = tpExc  (1474, "clapi_channel.unlockChannel() Failed to clear unlockEvent for channel (%p)\n");
constexpr TracePoint notReleased = tpExc  (1475, "clapi_channel.unlockChannel() Failed to release channel lock (%p)\n");
constexpr TracePoint exit        = tpExit (1476, "clapi_channel.unlockChannel() rc=%d (%s)\n");
}

#endif
