      * qpxclient.cpy - the records and numbers of the 64-bit library,
      * for COBOL. Made by tools/records from the C headers, which say
      * what everything means; docs/languages.md says how to call.
      *
      * Compile so that COMP-5 items have 2, 4 and 8 bytes (-fbinary-
      * size=2-4-8, the default of GnuCOBOL). Initialise records with
      * LOW-VALUES before use.
      *
      * QPX_listSystem_t of qpxclient.h, 70 bytes.
       01  QPX-LIST-SYSTEM.
      * at most 8 characters, then NULs
           05  LIST-SYSTEM-NAME PIC X(9).
      * at most 60 characters, then what the Gateway sends
           05  LIST-DESCRIPTION PIC X(61).
      *
      * QPX_ECI_PARMS of qpxclient_eci.h, 114 bytes.
       01  QPX-ECI-PARMS.
      * ECI_SYNC and the others
           05  ECI-CALL-TYPE PIC S9(4) COMP-5.
      * the server program to run
           05  ECI-PROGRAM-NAME PIC X(8).
      * user id, versions 3 and 4
           05  ECI-USERID PIC X(16).
      * password, versions 3 and 4
           05  ECI-PASSWORD PIC X(16).
      * transaction under which the program runs
           05  ECI-TRANSID PIC X(4).
      * out: the abend code of the server program
           05  ECI-ABEND-CODE PIC X(4).
      * in/out: the COMMAREA; NULL if its length is 0
           05  ECI-COMMAREA USAGE POINTER.
      * size of the COMMAREA, 0 to 32767
           05  ECI-COMMAREA-LENGTH PIC S9(4) COMP-5.
      * time-out of the call, for the Gateway; 0 or more
           05  ECI-TIMEOUT PIC S9(4) COMP-5.
      * ECI_NO_EXTEND and the others
           05  ECI-EXTEND-MODE PIC S9(4) COMP-5.
      * in/out: the unit of work; 0 for a new one
           05  ECI-LUW-TOKEN PIC S9(9) COMP-5.
      * ECI_VERSION_6 and the others
           05  ECI-VERSION PIC S9(4) COMP-5.
      * the server behind the Gateway
           05  ECI-SYSTEM-NAME PIC X(8).
      * transaction program; takes the place of eci_transid
           05  ECI-TPN PIC X(4).
      * bytes of the COMMAREA to send; 0 means all
           05  ECI-COMMAREA-OUTBOUND-LENGTH PIC S9(4) COMP-5.
      * bytes wanted back, 0 means all; out of collected replies
           05  ECI-COMMAREA-INBOUND-LENGTH PIC S9(4) COMP-5.
      * in/out: the channel of a channel call
           05  ECI-CHANNEL USAGE POINTER.
      * user id, from version 5; NULL for none
           05  ECI-USERID-PTR USAGE POINTER.
      * password, from version 5; NULL for none
           05  ECI-PASSWORD-PTR USAGE POINTER.
      * out of ECI_ASYNC; in of the specific collecting calls
           05  ECI-MESSAGE-QUALIFIER PIC S9(9) COMP-5.
      *
      * ECI_CONTAINER_INFO of eci_channel.h, 33 bytes.
       01  ECI-CONTAINER-INFO.
      * NUL-terminated
           05  CONTAINER-NAME PIC X(17).
           05  CONTAINER-TYPE PIC S9(9) COMP-5.
      * the code page of an ECI_CHAR container; 0 for ECI_BIT
           05  CONTAINER-CCSID PIC S9(9) COMP-5.
      * bytes
           05  CONTAINER-DATA-LENGTH PIC 9(18) COMP-5.
      *
      * ESI_DATETIME of qpxclient_esi.h, 28 bytes.
       01  ESI-DATETIME.
      * the full year
           05  ESI-YEAR PIC S9(9) COMP-5.
      * 0 to 11
           05  ESI-MONTH PIC S9(9) COMP-5.
      * 1 to 31
           05  ESI-DAY PIC S9(9) COMP-5.
      * 0 to 23
           05  ESI-HOUR PIC S9(9) COMP-5.
      * 0 to 59
           05  ESI-MINUTE PIC S9(9) COMP-5.
      * 0 to 59
           05  ESI-SECOND PIC S9(9) COMP-5.
      * hundredths of a second, 0 to 99
           05  ESI-HUNDREDTHS PIC S9(9) COMP-5.
      *
      * ESI_DETAILS of qpxclient_esi.h, 88 bytes.
       01  ESI-DETAILS.
      * when the password was last verified
           05  ESI-LAST-VERIFIED-TIME.
      * the full year
               10  ESI-LAST-VERIFIED-TIME-YEAR PIC S9(9) COMP-5.
      * 0 to 11
               10  ESI-LAST-VERIFIED-TIME-MONTH PIC S9(9) COMP-5.
      * 1 to 31
               10  ESI-LAST-VERIFIED-TIME-DAY PIC S9(9) COMP-5.
      * 0 to 23
               10  ESI-LAST-VERIFIED-TIME-HOUR PIC S9(9) COMP-5.
      * 0 to 59
               10  ESI-LAST-VERIFIED-TIME-MINUTE PIC S9(9) COMP-5.
      * 0 to 59
               10  ESI-LAST-VERIFIED-TIME-SECOND PIC S9(9) COMP-5.
      * hundredths of a second, 0 to 99
               10  ESI-LAST-VERIFIED-TIME-HUNDREDTHS PIC S9(9) COMP-5.
      * when the user last accessed the server
           05  ESI-LAST-ACCESSED-TIME.
      * the full year
               10  ESI-LAST-ACCESSED-TIME-YEAR PIC S9(9) COMP-5.
      * 0 to 11
               10  ESI-LAST-ACCESSED-TIME-MONTH PIC S9(9) COMP-5.
      * 1 to 31
               10  ESI-LAST-ACCESSED-TIME-DAY PIC S9(9) COMP-5.
      * 0 to 23
               10  ESI-LAST-ACCESSED-TIME-HOUR PIC S9(9) COMP-5.
      * 0 to 59
               10  ESI-LAST-ACCESSED-TIME-MINUTE PIC S9(9) COMP-5.
      * 0 to 59
               10  ESI-LAST-ACCESSED-TIME-SECOND PIC S9(9) COMP-5.
      * hundredths of a second, 0 to 99
               10  ESI-LAST-ACCESSED-TIME-HUNDREDTHS PIC S9(9) COMP-5.
      * when the password expires
           05  ESI-EXPIRY-TIME.
      * the full year
               10  ESI-EXPIRY-TIME-YEAR PIC S9(9) COMP-5.
      * 0 to 11
               10  ESI-EXPIRY-TIME-MONTH PIC S9(9) COMP-5.
      * 1 to 31
               10  ESI-EXPIRY-TIME-DAY PIC S9(9) COMP-5.
      * 0 to 23
               10  ESI-EXPIRY-TIME-HOUR PIC S9(9) COMP-5.
      * 0 to 59
               10  ESI-EXPIRY-TIME-MINUTE PIC S9(9) COMP-5.
      * 0 to 59
               10  ESI-EXPIRY-TIME-SECOND PIC S9(9) COMP-5.
      * hundredths of a second, 0 to 99
               10  ESI-EXPIRY-TIME-HUNDREDTHS PIC S9(9) COMP-5.
      * invalid password attempts
           05  ESI-INVALID-COUNT PIC S9(9) COMP-5.
      *
      * The numbers of the headers.
       78  QPX-OK VALUE 0.
       78  QPX-ERR-SYSTEM-ERROR VALUE -9.
       78  QPX-ERR-MORE-SYSTEMS VALUE -25.
       78  QPX-ERR-NO-SYSTEMS VALUE -26.
       78  QPX-ERR-NULLGWTOK VALUE -100.
       78  QPX-ERR-BADGWTOK VALUE -101.
       78  QPX-ERR-LOSTGWCON VALUE -102.
       78  QPX-ERR-NULLPARM VALUE -103.
       78  QPX-ERR-TRACELEVEL VALUE -104.
       78  QPX-ERR-BADPORT VALUE -107.
       78  QPX-ERR-NULLGWTOKPTR VALUE -108.
       78  QPX-ERR-NULLPTR VALUE -109.
       78  QPX-ERR-MALLOCFAIL VALUE -111.
       78  QPX-ERR-CONNECTFAILED VALUE -118.
       78  QPX-ERR-TRACEFILE VALUE -130.
       78  QPX-ERR-BADHOST VALUE -132.
       78  QPX-ERR-NULLADDRESS VALUE -133.
       78  QPX-ERR-CONNECTTIMEOUT VALUE -134.
       78  QPX-ERR-NULLECIPOINTER VALUE -137.
       78  QPX-ERR-INVALIDTIMEOUTPARM VALUE -138.
       78  QPX-ERR-APPLIDTOOLONG VALUE -139.
       78  QPX-ERR-GWTOK-CLOSED VALUE -140.
       78  QPX-ERR-GATEWAY-CLOSED VALUE 61444.
       78  QPX-ERR-WORK-WAS-REFUSED VALUE 61445.
       78  QPX-ERR-GATEWAY-EXCEPTION VALUE 61446.
       78  QPX-ERR-GATEWAY-BACK-LEVEL VALUE 61450.
       78  QPX-ERR-INVALID-REQUEST-TYPE VALUE 61451.
       78  ECI-NO-ERROR VALUE 0.
       78  ECI-ERR-INVALID-DATA-LENGTH VALUE -1.
       78  ECI-ERR-INVALID-EXTEND-MODE VALUE -2.
       78  ECI-ERR-NO-VORN VALUE -3.
       78  ECI-ERR-VORN-DIED VALUE -4.
       78  ECI-ERR-REQUEST-TIMEOUT VALUE -5.
       78  ECI-ERR-RESPONSE-TIMEOUT VALUE -6.
       78  ECI-ERR-TRANSACTION-ABEND VALUE -7.
       78  ECI-ERR-LUW-TOKEN VALUE -8.
       78  ECI-ERR-SYSTEM-ERROR VALUE -9.
       78  ECI-ERR-INVALID-CALL-TYPE VALUE -14.
       78  ECI-ERR-ALREADY-ACTIVE VALUE -15.
       78  ECI-ERR-RESOURCE-SHORTAGE VALUE -16.
       78  ECI-ERR-NO-SESSIONS VALUE -17.
       78  ECI-ERR-INVALID-DATA-AREA VALUE -19.
       78  ECI-ERR-INVALID-VERSION VALUE -21.
       78  ECI-ERR-UNKNOWN-SERVER VALUE -22.
       78  ECI-ERR-SECURITY-ERROR VALUE -27.
       78  ECI-ERR-MAX-SYSTEMS VALUE -28.
       78  ECI-ERR-MAX-SESSIONS VALUE -29.
       78  ECI-ERR-ROLLEDBACK VALUE -30.
       78  ECI-ERR-NO-REPLY VALUE -32.
       78  ECI-ERR-INVALID-MSG-QUAL VALUE -33.
       78  ECI-SYNC VALUE 1.
       78  ECI-ASYNC VALUE 2.
       78  ECI-GET-REPLY VALUE 3.
       78  ECI-GET-REPLY-WAIT VALUE 4.
       78  ECI-GET-SPECIFIC-REPLY VALUE 5.
       78  ECI-GET-SPECIFIC-REPLY-WAIT VALUE 6.
       78  ECI-NO-EXTEND VALUE 0.
       78  ECI-EXTENDED VALUE 1.
       78  ECI-COMMIT VALUE 2.
       78  ECI-BACKOUT VALUE 4.
       78  ECI-VERSION-3 VALUE 3.
       78  ECI-VERSION-4 VALUE 4.
       78  ECI-VERSION-5 VALUE 5.
       78  ECI-VERSION-6 VALUE 6.
       78  ECI-ERR-INVALID-CHANNEL VALUE -50.
       78  ECI-ERR-INVALID-NAME VALUE -51.
       78  ECI-ERR-NULLCHANNELPTR VALUE -52.
       78  ECI-ERR-CHANNELLOCKFAIL VALUE -53.
       78  ECI-ERR-ENDOFCONTAINERS VALUE -54.
       78  ECI-ERR-NULLINFOPTR VALUE -55.
       78  ECI-ERR-INVALID-TYPE VALUE -56.
       78  ECI-ERR-CONTAINER-NOTFOUND VALUE -58.
       78  ECI-ERR-CONTAINER-EXISTS VALUE -59.
       78  ECI-ERR-COMMAREA-AND-CHANNEL VALUE -60.
       78  ECI-ERR-NULLPTR VALUE -109.
       78  ECI-ERR-MEMORY-SHORTAGE VALUE -111.
       78  ECI-ERR-LOCKFAIL VALUE -121.
       78  ECI-BIT VALUE 1.
       78  ECI-CHAR VALUE 2.
       78  ESI-ERR-USERID-INVALID VALUE -300.
       78  ESI-ERR-NULL-USERID VALUE -301.
       78  ESI-ERR-PASSWORD-INVALID VALUE -302.
       78  ESI-ERR-NULL-PASSWORD VALUE -303.
       78  ESI-ERR-PEM-NOT-SUPPORTED VALUE -304.
       78  ESI-ERR-PEM-NOT-ACTIVE VALUE -305.
       78  ESI-ERR-PASSWORD-EXPIRED VALUE -306.
       78  ESI-ERR-SECURITY-ERROR VALUE -307.
       78  ESI-ERR-RESOURCE-SHORTAGE VALUE -308.
       78  ESI-ERR-NO-SESSIONS VALUE -309.
       78  ESI-ERR-NO-VORN VALUE -310.
       78  ESI-ERR-VORN-DIED VALUE -311.
       78  ESI-ERR-UNKNOWN-SERVER VALUE -312.
       78  ESI-ERR-SYSTEM-ERROR VALUE -313.
       78  ESI-ERR-NULL-NEW-PASSWORD VALUE -314.
       78  ESI-ERR-PASSWORD-REJECTED VALUE -315.
       78  ESI-ERR-MAX-SYSTEMS VALUE -316.
       78  ESI-ERR-MAX-SESSIONS VALUE -317.
