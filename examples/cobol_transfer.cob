      * cobol_transfer.cob - a unit of work from COBOL, in 64 bits: a
      * debit and a credit that count together or not at all.
      *
      *     cobol_transfer [PORT]
       IDENTIFICATION DIVISION.
       PROGRAM-ID. COBOL-TRANSFER.
       DATA DIVISION.
       WORKING-STORAGE SECTION.
       COPY "qpxclient.cpy".
       01  HOST      PIC X(10) VALUE Z"127.0.0.1".
       01  PORT-TEXT PIC X(5).
       01  PORT      PIC S9(9) COMP-5 VALUE 5770.
       01  TIME-OUT  PIC S9(9) COMP-5 VALUE 30.
       01  GATEWAY   USAGE POINTER VALUE NULL.
       01  RC        PIC S9(9) COMP-5.
       01  RC-NAME   PIC X(40).
       01  POSTING.
           05  WHAT      PIC X.
           05  OUTCOME   PIC XX.
               88  ACCEPTED VALUE "00".
           05  ACCOUNT   PIC X(8).
           05  CENTS     PIC 9(12) VALUE 250.
           05  FILLER    PIC X(57).
       PROCEDURE DIVISION.
       MAIN-LINE.
           ACCEPT PORT-TEXT FROM ARGUMENT-VALUE
           IF PORT-TEXT NOT = SPACES MOVE PORT-TEXT TO PORT.
           CALL STATIC "QPX_openRemoteGatewayConnection" USING
               BY REFERENCE HOST BY VALUE PORT
               BY REFERENCE GATEWAY BY VALUE TIME-OUT RETURNING RC
           PERFORM CHECK
           MOVE LOW-VALUES TO QPX-ECI-PARMS
           MOVE ECI-VERSION-6 TO ECI-VERSION
           MOVE ECI-SYNC TO ECI-CALL-TYPE
           MOVE "LEDGER" TO ECI-PROGRAM-NAME
           MOVE ECI-EXTENDED TO ECI-EXTEND-MODE
           SET ECI-COMMAREA TO ADDRESS OF POSTING
           MOVE LENGTH OF POSTING TO ECI-COMMAREA-LENGTH
           MOVE "D  ACC00001" TO POSTING(1:11) PERFORM EXECUTE
           IF ACCEPTED
               MOVE "C  ACC00002" TO POSTING(1:11) PERFORM EXECUTE.
           IF ACCEPTED MOVE ECI-COMMIT TO ECI-EXTEND-MODE
           ELSE MOVE ECI-BACKOUT TO ECI-EXTEND-MODE.
           SET ECI-COMMAREA TO NULL MOVE 0 TO ECI-COMMAREA-LENGTH
           PERFORM EXECUTE
           IF ACCEPTED DISPLAY "posted" ELSE DISPLAY "refused".
           CALL STATIC "QPX_closeGatewayConnection" USING
               BY REFERENCE GATEWAY RETURNING RC
           STOP RUN.
       EXECUTE.
           CALL STATIC "QPX_ECI_Execute" USING
               BY VALUE GATEWAY BY REFERENCE QPX-ECI-PARMS RETURNING RC
           PERFORM CHECK.
      * What is not committed when the program ends is backed out.
       CHECK.
           IF RC NOT = QPX-OK
               CALL STATIC "QPX_getRcString" USING BY VALUE RC
                   BY REFERENCE RC-NAME RETURNING NOTHING
               DISPLAY FUNCTION TRIM(RC-NAME) UPON STDERR
               STOP RUN WITH ERROR STATUS 1.
