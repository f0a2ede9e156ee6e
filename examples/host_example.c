/* A complete host program on the Dravelin C API (docs/host-guide.md walks through it).
 *
 * It talks to the library's built-in KW1281 simulator (address 0x80 at 9600 baud), so it runs
 * without a cable; give a port, an address and a baud rate to talk to a real ECU:
 *     host_example                      the simulator
 *     host_example /dev/ttyUSB0 1 10400  the engine ECU (address 0x01) on a KKL cable
 *
 * It shows the whole life of a session: DvConstruct with a log callback that decodes each line
 * with DvLogDecode, the settings, DvVagConnect, the identification, the fault memory, a measuring
 * group shown with units, DvVagDisconnect and DvDestruct, and a DvFree for every block the library
 * hands out. It exits with 0 on success and with the library's result code otherwise. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "dravelin/dravelin.h"

/* Prints a UTF-16 text as UTF-8 (characters of the Basic Multilingual Plane). */
static void PrintText(FILE *out, const DvChar *text) {
    for (; *text != 0; ++text) {
        unsigned c = (unsigned)*text & 0xFFFFu;
        if (c < 0x80u) {
            fputc((int)c, out);
        } else if (c < 0x800u) {
            fputc((int)(0xC0u | (c >> 6)), out);
            fputc((int)(0x80u | (c & 0x3Fu)), out);
        } else {
            fputc((int)(0xE0u | (c >> 12)), out);
            fputc((int)(0x80u | ((c >> 6) & 0x3Fu)), out);
            fputc((int)(0x80u | (c & 0x3Fu)), out);
        }
    }
}

/* The log callback. The library hands over each line (or all lines of one exchange) scrambled;
 * DvLogDecode turns it back into text. The plain text is never longer than the scrambled one. */
static void DV_CALL OnLog(uint32_t context, const DvChar *text) {
    size_t length = 0;
    DvChar *plain;
    uint32_t i, result;
    (void)context;
    while (text[length] != 0) {
        ++length;
    }
    plain = (DvChar *)malloc((length + 1) * sizeof(DvChar));
    if (plain == NULL) {
        return;
    }
    result = DvLogDecode(text, plain, (uint32_t)(length + 1));
    if (result != 0xFFFFFFFFu) {
        /* Each line begins with CR LF; a terminal wants LF only. */
        size_t kept = 0;
        for (i = 0; plain[i] != 0; ++i) {
            if (plain[i] != '\r') {
                plain[kept++] = plain[i];
            }
        }
        plain[kept] = 0;
        PrintText(stderr, plain);
    }
    free(plain);
}

/* How a measuring value is shown: the library gives a formula id and a scaled integer; the host
 * owns the unit and the divisor of each id. A few ids here; the whole table is docs/units.md. */
struct Unit {
    uint8_t formula;
    const char *unit;
    int divisor;
};

static const struct Unit kUnits[] = {
    {1, "rpm", 10}, /* engine speed: 0.2 * a * b */
    {5,
     "\xC2\xB0"
     "C",
     10},             /* temperature: 0.1 * a * (b - 100) */
    {6, "V", 1000},   /* voltage: 0.001 * a * b */
    {7, "km/h", 100}, /* speed: 0.01 * a * b */
    {11, "", 1000},   /* factor: 0.0001 * a * (b - 128) + 1 */
};

static void PrintValue(const MeasuringValue *value) {
    size_t i;
    if (value->text != NULL) {
        PrintText(stdout, value->text);
        return;
    }
    if (value->kind == 16) { /* a bit field */
        printf("0x%04X", (unsigned)value->value);
        return;
    }
    for (i = 0; i < sizeof kUnits / sizeof kUnits[0]; ++i) {
        if (kUnits[i].formula == value->kind) {
            const int decimals = kUnits[i].divisor >= 1000 ? 3 : kUnits[i].divisor >= 100 ? 2 : 1;
            printf("%.*f%s%s", decimals, (double)value->value / kUnits[i].divisor,
                   kUnits[i].unit[0] != 0 ? " " : "", kUnits[i].unit);
            return;
        }
    }
    printf("%d (formula %u)", (int)value->value, (unsigned)value->kind);
}

/* UTF-16 copy of an ASCII text (port names). */
static void ToDvText(const char *text, DvChar *out, size_t capacity) {
    size_t i;
    for (i = 0; i + 1 < capacity && text[i] != 0; ++i) {
        out[i] = (DvChar)(unsigned char)text[i];
    }
    out[i] = 0;
}

static int Fail(const char *what, uint32_t code) {
    fprintf(stderr, "%s failed with result code %u\n", what, (unsigned)code);
    return code < 256u ? (int)code : 64;
}

/* The session proper, between DvConstruct and DvDestruct. */
static int Session(const DvChar *port, uint32_t address, uint32_t baud) {
    DvSettings settings;
    DvChar **descriptions = NULL;
    FaultRecord *faults = NULL;
    MeasuringValue *values = NULL;
    uint32_t interval = 0, count = 0, i, code;

    /* Settings are read and written as a whole record: change a word, write the record back.
     * DvGetSettings writes only the low byte of the tester address word: clear the record first. */
    memset(&settings, 0, sizeof settings);
    DvGetSettings(&settings);
    settings.connectRetries = 2;
    code = DvSetSettings(&settings);
    if (code != 0) {
        return Fail("DvSetSettings", code);
    }

    code = DvVagConnect(port, baud, address, &descriptions, &interval);
    if (code != 0) {
        return Fail("DvVagConnect", code);
    }
    /* The descriptions: a NULL-terminated array; each string and then the array are freed. */
    printf("Identification:\n");
    for (i = 0; descriptions[i] != NULL; ++i) {
        printf("  ");
        PrintText(stdout, descriptions[i]);
        printf("\n");
        DvFree(descriptions[i]);
    }
    DvFree(descriptions);
    printf("Keep-alive interval: %u ms\n", (unsigned)interval);

    code = DvVagGetFaults(&count, &faults);
    if (code == 0) {
        printf("Fault memory:\n");
        for (i = 0; i < count; ++i) {
            if (faults[i].code == 0xFFFF && faults[i].elaboration == 8) {
                printf("  no fault stored\n"); /* the ECU's "empty memory" entry */
            } else {
                printf("  %05u, elaboration %02u%s\n", (unsigned)faults[i].code,
                       (unsigned)faults[i].elaboration,
                       faults[i].intermittent ? ", intermittent" : "");
            }
        }
        DvFree(faults); /* one block: the records hold no pointers */
    }

    /* A NULL array asks the library to allocate it; each record's text and then the array are
     * freed. (Passing the array back in refills it in place, as long as the count is unchanged.) */
    if (code == 0) {
        code = DvVagGetGroupMeasurements(0, 1, &count, &values);
    }
    if (code == 0) {
        printf("Group 1:\n");
        for (i = 0; i < count; ++i) {
            printf("  %u: ", (unsigned)(i + 1));
            PrintValue(&values[i]);
            printf("\n");
            DvFree(values[i].text);
        }
        DvFree(values);
        code = DvVagCloseGroupMeasurements();
    }

    /* Always disconnect: it closes the port and writes the statistics report to the log. */
    DvVagDisconnect();
    return code == 0 ? 0 : Fail("the session", code);
}

int main(int argc, char **argv) {
    DvChar port[64];
    uint32_t address = 0x80, baud = 9600, code;
    int status;

    ToDvText(argc > 1 ? argv[1] : "SIM", port, sizeof port / sizeof port[0]);
    if (argc > 2) {
        address = (uint32_t)strtoul(argv[2], NULL, 0);
    }
    if (argc > 3) {
        baud = (uint32_t)strtoul(argv[3], NULL, 0);
    }

    /* Once a process: the context value comes back as the callback's first argument. */
    code = DvConstruct(0, OnLog);
    if (code != 0) {
        return Fail("DvConstruct", code);
    }
    DvSetMessagesLevel(2); /* 1 errors, 2 progress, 3 line trace, 4 detail */
    status = Session(port, address, baud);
    DvDestruct();
    return status;
}
