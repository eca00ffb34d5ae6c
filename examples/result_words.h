/* result_words.h: smkernal's result codes in words, for the messages of the example programs. */
#ifndef RESULT_WORDS_H
#define RESULT_WORDS_H

#include <stdio.h>

#include "smkernal.h"

/* A status of the session and settings calls, or an image's result (wParam of SM_MSG_XFEREND). */
static inline const char *ResultWords(LONG result) {
    static const char *const conditions[] = {"success",
                                             "the source failed (TWCC_BUMMER)",
                                             "out of memory (TWCC_LOWMEMORY)",
                                             "no such source (TWCC_NODS)",
                                             "the source is in use (TWCC_MAXCONNECTIONS)",
                                             "the source cannot do that now (TWCC_OPERATIONERROR)",
                                             "no such capability (TWCC_BADCAP)",
                                             NULL,
                                             NULL,
                                             "the source broke the protocol (TWCC_BADPROTOCOL)",
                                             "a value that is refused (TWCC_BADVALUE)",
                                             "called in the wrong state (TWCC_SEQERROR)",
                                             "no such source (TWCC_BADDEST)",
                                             "not supported by the source (TWCC_CAPUNSUPPORTED)",
                                             "an operation the source refuses (TWCC_CAPBADOPERATION)",
                                             "not in the source's present state (TWCC_CAPSEQERROR)"};
    if (result >= 0 && result < (LONG)(sizeof conditions / sizeof conditions[0]) && conditions[result])
        return conditions[result];
    switch (result) {
    case SM_ERR_UNAVAILABLE:
        return "the source manager TWAIN_32.DLL is not available";
    case SM_ERR_SOURCE_CANCEL:
        return "cancelled by the source";
    case SM_ERR_APP_CANCEL:
        return "cancelled by the application";
    case SM_ERR_USER_CANCEL:
        return "the user cancelled the selection";
    default:
        return "an unknown result";
    }
}

/* An image's result in a scan to files (wParam of SM_MSG_SCANTOFILE_XFEREND), where 1, -2 and -3 mean more. */
static inline const char *FileResultWords(LONG result) {
    switch (result) {
    case SM_ERR_IMAGE_REFUSED:
        return "image refused (format not supported)";
    case SM_ERR_NO_DISK_SPACE:
        return "not enough disk space";
    case SM_ERR_FILE:
        return "the file could not be written";
    default:
        return ResultWords(result);
    }
}

/* Says on the error output what went wrong when a call did not succeed; nonzero when it did. */
static inline int Succeeded(const char *call, LONG status) {
    if (status != SM_OK)
        fprintf(stderr, "%s: %s (%ld)\n", call, ResultWords(status), (long)status);
    return status == SM_OK;
}

#endif /* RESULT_WORDS_H */
