/*
 * Dravelin: diagnostics of VW-group control units over a K-line (KKL) adapter.
 *
 * The plain C interface of the library. Every export returns a uint32_t result code (0 is
 * success; the table is in the README and in docs/) unless it is declared void or returns a
 * pointer. Texts are NUL-terminated UTF-16 (DvChar). Blocks the library hands out are freed by
 * the host with DvFree, member by member where a record holds pointers.
 *
 * The library is single-threaded: call it from one thread only. It starts no threads.
 */
#ifndef DRAVELIN_DRAVELIN_H
#define DRAVELIN_DRAVELIN_H

#include <stdint.h>
#if defined(_WIN32)
#include <wchar.h>
#endif

#if defined(_WIN32)
#if defined(DV_BUILDING_DLL)
#define DV_API __declspec(dllexport)
#elif defined(DV_STATIC)
#define DV_API
#else
#define DV_API __declspec(dllimport)
#endif
#else
#define DV_API __attribute__((visibility("default")))
#endif

/* The platform's default C calling convention: empty on every platform built here. */
#define DV_CALL

#ifdef __cplusplus
extern "C" {
#endif

/* One UTF-16 code unit. */
#if defined(_WIN32)
typedef wchar_t DvChar;
#else
typedef uint16_t DvChar;
#endif

/* The host's message-log function: receives the context given to DvConstruct and one scrambled
 * log text (one line, or all lines of one exchange section). Read it with DvLogDecode. */
typedef void(DV_CALL *MessageCallback)(uint32_t context, const DvChar *text);

/* The 14 settings words, in word order (Part 1.2). Times in milliseconds; counts include the
 * first attempt. */
typedef struct DvSettings {
    uint32_t dtrOn;              /* 0: DTR line raised while a port is open when non-zero (1) */
    uint32_t P2max;              /* 1: KWP2000 response timeout (50); > max(P1max, 20) + 5 */
    uint32_t P1max;              /* 2: KWP2000 inter-byte time (20); non-zero */
    uint32_t isoConnectAttempts; /* 3: KWP2000 connection attempts (3); non-zero */
    uint32_t isoRequestAttempts; /* 4: KWP2000 request attempts (3); non-zero */
    uint32_t testerAddress;      /* 5: KWP2000 tester address (0xF1); low byte used */
    uint32_t connectRetries;     /* 6: KW1281 connection attempts (3); non-zero */
    uint32_t serviceRetries;     /* 7: KW1281 service attempts (2); non-zero */
    uint32_t blockSendRetries;   /* 8: KW1281 block send attempts (3); non-zero */
    uint32_t silenceReads;       /* 9: KW1281 break recovery reads (3); non-zero */
    uint32_t initTimeout;        /* 10: KW1281 sync byte timeout (1000); <= 3 * blockTimeout */
    uint32_t keywordTimeout;     /* 11: KW1281 keyword byte timeout (140) */
    uint32_t blockTimeout;       /* 12: KW1281 block timeout (1000) */
    uint32_t byteTimeout;        /* 13: KW1281 byte timeout (60) */
} DvSettings;

/* One entry of the KW1281 fault memory (Part 4.2). */
typedef struct FaultRecord {
    uint32_t intermittent; /* non-zero when the fault is intermittent */
    uint16_t code;         /* fault code */
    uint8_t elaboration;   /* fault elaboration (status) */
} FaultRecord;

/* One decoded measuring value (Part 4.5): kind is the formula id (0 when not decodable), value
 * the scaled integer, text a UTF-16 text owned by the host (free with DvFree) or NULL. */
typedef struct MeasuringValue {
    uint8_t kind;
    int32_t value;
    DvChar *text;
} MeasuringValue;

/* One KWP2000 trouble code with its status (Part 6.2). */
typedef struct DtcEntry {
    uint32_t index;
    uint16_t code;
    uint8_t status;
} DtcEntry;

/* The manufacturer's general ECU identification (Part 6.1); texts freed by the host. */
typedef struct EcuIdentification {
    DvChar *partNumber;
    DvChar *componentText;
    uint32_t coding;
    uint32_t workshopCode;
    uint32_t extraCode;
} EcuIdentification;

/* ---- Part 1.1: lifecycle and frame ---------------------------------------------------------- */

/* Sets up the library: stores the host context and log callback (may be NULL: no log), sets the
 * message level to 2 and every setting to its default. Returns 0, or 4 when the platform has no
 * performance counter. Call once before anything else. */
DV_API uint32_t DV_CALL DvConstruct(uint32_t context, MessageCallback callback);

/* Frees the library's buffers. An open port is not closed: disconnect first. */
DV_API void DV_CALL DvDestruct(void);

/* Sets the message level (0 silences the log; 1 errors, 2 progress, 3 line trace, 4 detail).
 * Any value is accepted; returns 0. */
DV_API uint32_t DV_CALL DvSetMessagesLevel(uint32_t level);

/* Returns the current message level. */
DV_API uint32_t DV_CALL DvGetMessagesLevel(void);

/* Allocates size bytes from the library's heap; size 0 gives NULL. */
DV_API void *DV_CALL DvAllocate(uint32_t size);

/* Frees a block from DvAllocate or handed out by a service; NULL is ignored. */
DV_API void DV_CALL DvFree(void *block);

/* ---- Part 1.2: settings --------------------------------------------------------------------- */

/* Validates and applies the settings in three sub-blocks (serial, KWP2000, KW1281). Returns 0, 1
 * for a refused value (earlier sub-blocks stay applied) or 5 when the DTR change failed. */
DV_API uint32_t DV_CALL DvSetSettings(const DvSettings *settings);

/* Writes the current settings. Of word 5 only the lowest byte is written: clear the record
 * first. */
DV_API void DV_CALL DvGetSettings(DvSettings *settings);

/* ---- Part 2.3: port capture ----------------------------------------------------------------- */

/* Opens port at baud, reads bytes into buffer (which must hold maxCount bytes) until maxCount
 * bytes came or no byte came within byteTimeout ms, closes the port. count receives the number
 * of bytes. Returns 0 or 5. */
DV_API uint32_t DV_CALL DvSpy(const DvChar *port, uint32_t baud, uint32_t maxCount,
                              uint32_t byteTimeout, uint32_t *count, uint8_t *buffer);

/* ---- Part 3.3: KW1281 connection ------------------------------------------------------------ */

/* Opens port at baud and connects to the ECU at address by 5-baud initialisation; address 0x80
 * at 9600 baud is the built-in simulator (no port is opened). On success descriptions receives
 * the identification strings (NULL-terminated array; free each string, then the array) and
 * interval the block timeout in ms: call DvVagIdle or a service at least that often. */
DV_API uint32_t DV_CALL DvVagConnect(const DvChar *port, uint32_t baud, uint32_t address,
                                     DvChar ***descriptions, uint32_t *interval);

/* Keeps the link alive with an acknowledge block; reestablishes it once when the ECU was lost. */
DV_API uint32_t DV_CALL DvVagIdle(void);

/* Ends the connection (end-of-communication block when the link is up), closes the port and
 * logs the statistics report. */
DV_API void DV_CALL DvVagDisconnect(void);

/* ---- Parts 4.1-4.4: KW1281 services --------------------------------------------------------- */

/* Reads the ECU identification again (same form as DvVagConnect's descriptions). */
DV_API uint32_t DV_CALL DvVagGetDescriptions(DvChar ***descriptions);

/* Reads the fault memory: count and a FaultRecord array (free with DvFree; NULL when empty). */
DV_API uint32_t DV_CALL DvVagGetFaults(uint32_t *count, FaultRecord **faults);

/* Clears the fault memory. */
DV_API uint32_t DV_CALL DvVagClearFaults(void);

/* Writes coding and workshop code; descriptions receives the identification that follows. */
DV_API uint32_t DV_CALL DvVagSetCoding(uint32_t workshopCode, uint32_t coding,
                                       DvChar ***descriptions);

/* Logs in with the login code; the codes are kept to log in again after a reestablished link. */
DV_API uint32_t DV_CALL DvVagLogin(uint32_t workshopCode, uint32_t loginCode);

/* Runs the next actuator test step; actuatorCode receives the actuator under test (0 at the
 * end). */
DV_API uint32_t DV_CALL DvVagTestActuator(uint16_t *actuatorCode);

/* Read count bytes of RAM, EPROM or EEPROM at address into buffer; countRead receives the number
 * of bytes the ECU returned. */
DV_API uint32_t DV_CALL DvVagGetRamData(uint32_t address, uint32_t count, uint8_t *countRead,
                                        uint8_t *buffer);
DV_API uint32_t DV_CALL DvVagGetEpromData(uint32_t address, uint32_t count, uint8_t *countRead,
                                          uint8_t *buffer);
DV_API uint32_t DV_CALL DvVagGetEepromData(uint32_t address, uint32_t count, uint8_t *countRead,
                                           uint8_t *buffer);

/* ---- Part 4.6: measurements ----------------------------------------------------------------- */

/* Reads a measuring group (mode 0: group reading, 1: basic settings). With *values NULL the
 * library allocates count records; with a non-NULL array from an earlier call it is refilled in
 * place and *count must match. */
DV_API uint32_t DV_CALL DvVagGetGroupMeasurements(uint32_t mode, uint8_t group, uint32_t *count,
                                                  MeasuringValue **values);

/* Ends a group reading or basic setting. */
DV_API uint32_t DV_CALL DvVagCloseGroupMeasurements(void);

/* Reads the raw measuring bytes (in/out count and bytes as for DvVagGetGroupMeasurements). */
DV_API uint32_t DV_CALL DvVagGetMeasurements(uint32_t mode, uint32_t *count, uint8_t **bytes);

/* Reads one measuring channel. */
DV_API uint32_t DV_CALL DvVagGetMeasurement(uint8_t channel, uint16_t *value);

/* ---- Part 4.7: adaptation ------------------------------------------------------------------- */

/* Reads an adaptation channel: its value and measuring values. */
DV_API uint32_t DV_CALL DvVagGetGroupAdaption(uint8_t channel, uint16_t *value, uint32_t *count,
                                              MeasuringValue **values);

/* Tests a new adaptation value without storing it. */
DV_API uint32_t DV_CALL DvVagTestGroupAdaption(uint8_t channel, uint16_t value, uint16_t *outValue,
                                               uint32_t *count, MeasuringValue **values);

/* Stores a new adaptation value with the workshop code. */
DV_API uint32_t DV_CALL DvVagSaveGroupAdaption(uint32_t workshopCode, uint8_t channel,
                                               uint16_t value, uint16_t *outValue, uint32_t *count,
                                               MeasuringValue **values);

/* Resets all adaptation values. */
DV_API uint32_t DV_CALL DvVagClearAdaptions(uint32_t workshopCode);

/* ---- Part 5.2: KWP2000 connection ----------------------------------------------------------- */

/* Opens port at 10400 baud and starts KWP2000 communication with the ECU at address (mode 0:
 * 5-baud init, otherwise fast init). keepAlive receives the longest pause allowed between
 * requests, in ms. */
DV_API uint32_t DV_CALL DvIsoStartCommunication(const DvChar *port, uint32_t mode, uint32_t address,
                                                uint32_t *keepAlive);

/* Ends the KWP2000 link, closes the port and logs the statistics report. */
DV_API void DV_CALL DvIsoStopCommunication(void);

/* As DvIsoStartCommunication, with a manufacturer module address (0x01 engine, ...; 0x80 is the
 * built-in simulator). Returns 2 for a module address that is not in the map. */
DV_API uint32_t DV_CALL DvVagIsoStartCommunication(const DvChar *port, uint32_t mode,
                                                   uint32_t module, uint32_t *keepAlive);

/* ---- Part 5.3: KWP2000 standard services ---------------------------------------------------- */

DV_API uint32_t DV_CALL DvIsoStartDiagnosticSession(uint32_t mode);
DV_API uint32_t DV_CALL DvIsoStopDiagnosticSession(void);
DV_API uint32_t DV_CALL DvIsoTesterPresent(void);
DV_API uint32_t DV_CALL DvIsoTesterPresentExtended(uint32_t responseRequired);
/* Reads the trouble codes: count and a uint16_t array (free with DvFree). */
DV_API uint32_t DV_CALL DvIsoReadDtc(uint32_t *count, uint16_t **codes);
DV_API uint32_t DV_CALL DvIsoClearDiagnosticInformation(void);

/* ---- Part 6.1-6.3: manufacturer services over KWP2000 --------------------------------------- */

DV_API uint32_t DV_CALL DvVagIsoStartDiagnosticSession(uint32_t mode);
DV_API uint32_t DV_CALL DvVagIsoReadEcuIdentificationGeneral(EcuIdentification *record);
DV_API uint32_t DV_CALL DvVagIsoReadCapabilities(uint32_t *mask);
DV_API uint32_t DV_CALL DvVagIsoReadDtcByStatus(uint32_t status, uint32_t *count,
                                                DtcEntry **entries);
DV_API uint32_t DV_CALL DvVagIsoReadDtcByStatusExtended(uint32_t status, uint32_t group,
                                                        uint32_t *count, DtcEntry **entries);
DV_API uint32_t DV_CALL DvVagIsoClearDiagnosticInformationExtended(uint32_t group);
DV_API uint32_t DV_CALL DvVagIsoReadFreezeFrameDataByDtc(uint32_t code, uint32_t *count,
                                                         MeasuringValue **values);
DV_API uint32_t DV_CALL DvVagIsoReadDataByLocalId(uint32_t localId, uint32_t *count,
                                                  MeasuringValue **values);
DV_API uint32_t DV_CALL DvVagIsoTestActuator(uint32_t next);
DV_API uint32_t DV_CALL DvVagIsoReadActuatorData(uint32_t *count, MeasuringValue **values);

/* ---- Addition: the host's reader of the message log ----------------------------------------- */

/* Turns one callback text back into plain text: writes at most capacity - 1 characters and a NUL
 * into plain and returns the full plain length (a result >= capacity means it was cut). Text that
 * is not well-formed scrambled log returns 0xFFFFFFFF and writes an empty string. */
DV_API uint32_t DV_CALL DvLogDecode(const DvChar *text, DvChar *plain, uint32_t capacity);

#ifdef __cplusplus
}
#endif

#endif /* DRAVELIN_DRAVELIN_H */
