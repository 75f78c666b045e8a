/*
 * The component's C interface: a stable binary interface for hosts written
 * in C or in any language with a C foreign-function interface.
 *
 * Ownership: every text or byte buffer the library hands out (char* results,
 * the text of an elatectwn4_value it filled, the members of an
 * elatectwn4_error it filled) is allocated by the library and must be
 * released with elatectwn4_free, elatectwn4_value_clear or
 * elatectwn4_error_clear respectively. Texts the caller passes in stay the
 * caller's. No function of this header throws or aborts; a NULL encoder is
 * refused with ELATECTWN4_SCE_ERROR (or NULL, or -1 for elatectwn4_call).
 *
 *     elatectwn4_encoder *enc = elatectwn4_create();
 *     elatectwn4_set_reader(enc, "Virtual PCD 00 00");
 *     if (elatectwn4_open(enc) == ELATECTWN4_SCE_SUCCESS) {
 *         char *uid = NULL;
 *         if (elatectwn4_read_serial_number(enc, &uid) == ELATECTWN4_SCE_SUCCESS)
 *             printf("%s\n", uid);
 *         elatectwn4_free(uid);
 *     }
 *     elatectwn4_destroy(enc);
 */
#ifndef ELATECTWN4_ELATECTWN4_H
#define ELATECTWN4_ELATECTWN4_H

#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define ELATECTWN4_C_API __attribute__((visibility("default")))
#else
#define ELATECTWN4_C_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* sceReturnCode */
#define ELATECTWN4_SCE_SUCCESS 0
#define ELATECTWN4_SCE_CANCELED 1
#define ELATECTWN4_SCE_ERROR 2

/* How a member is reached (elatectwn4_call). */
#define ELATECTWN4_METHOD 0
#define ELATECTWN4_PROPERTY_GET 1
#define ELATECTWN4_PROPERTY_PUT 2

/* Results of elatectwn4_call: 0, or why the call could not be made. */
#define ELATECTWN4_CALL_OK 0
#define ELATECTWN4_CALL_UNKNOWN_NAME 1
#define ELATECTWN4_CALL_BAD_PARAM_COUNT 2
#define ELATECTWN4_CALL_TYPE_MISMATCH 3
#define ELATECTWN4_CALL_OVERFLOW 4
#define ELATECTWN4_CALL_INVALID 5 /* NULL encoder, NULL member name, unknown value type */

typedef struct elatectwn4_encoder elatectwn4_encoder;

typedef enum elatectwn4_type {
    ELATECTWN4_EMPTY = 0, /* nothing; an omitted optional argument */
    ELATECTWN4_BOOL = 1,  /* number: 0 or 1 */
    ELATECTWN4_BYTE = 2,  /* number: 0..255 */
    ELATECTWN4_LONG = 3,  /* number */
    ELATECTWN4_DOUBLE = 4,
    ELATECTWN4_STRING = 5, /* text: NUL-terminated, length bytes */
    ELATECTWN4_BYTES = 6   /* text: length raw bytes (NUL-terminated too) */
} elatectwn4_type;

/* A value of run-time type. Initialise with {0} (ELATECTWN4_EMPTY). */
typedef struct elatectwn4_value {
    elatectwn4_type type;
    int32_t number;
    double real;
    char* text;
    size_t length;
} elatectwn4_value;

/* A copy of the encoder's error record (LastError). */
typedef struct elatectwn4_error {
    int32_t number; /* 0 = no error; the component's own numbers are negative (0x9001xxyy) */
    char* description;
    int32_t last_dll_error;
    char* com_function;
    char* rdr_command;
    char* rdr_ret_code;
} elatectwn4_error;

/* An encoder over the system's PC/SC. NULL only when memory runs out. */
ELATECTWN4_C_API elatectwn4_encoder* elatectwn4_create(void);

/* An encoder over the built-in simulator: one reader "Virtual PCD 00 00"
 * holding a card of `kind` ("mifare1k", "mifare4k", "desfire"). With a
 * non-NULL state_file the card's contents are loaded from that JSON file
 * when it exists and saved to it when the encoder is destroyed. The
 * simulator lives in libelatectwn4-sim: link -lelatectwn4-sim as well.
 * Returns NULL on an unknown kind or an unreadable state file; *message (if
 * message is not NULL) then receives why, to be freed with elatectwn4_free. */
ELATECTWN4_C_API elatectwn4_encoder* elatectwn4_create_simulated(const char* kind, const char* state_file,
                                                                 char** message);

/* Closes the session and frees the encoder. NULL is accepted. */
ELATECTWN4_C_API void elatectwn4_destroy(elatectwn4_encoder* encoder);

/* Calls any member by name (case-insensitive): the late-bound interface.
 * args[0..count-1] are in the member's order; trailing optional ones may be
 * left out. In/out arguments are overwritten with their new values, whose
 * text the library allocates (release each with elatectwn4_value_clear); the
 * caller's own text they pointed to before is neither read again, modified
 * nor freed.
 * *result receives the member's result (ELATECTWN4_EMPTY for a Sub and for
 * LastError: read it with elatectwn4_last_error). Returns ELATECTWN4_CALL_OK,
 * or why the call could not be made (nothing was sent to the card); then
 * *message (if not NULL) receives the reason, to be freed with
 * elatectwn4_free. */
ELATECTWN4_C_API int elatectwn4_call(elatectwn4_encoder* encoder, const char* member, int kind, elatectwn4_value* args,
                                     size_t count, elatectwn4_value* result, char** message);

/* Number of members, and the signature of member `index` ("ReadDataBloc(BlocNumber As Long, ...) As
 * sceReturnCode"), or NULL past the end. */
ELATECTWN4_C_API size_t elatectwn4_member_count(void);
ELATECTWN4_C_API char* elatectwn4_member_signature(size_t index);

/* Copies the error record into *error (free with elatectwn4_error_clear).
 * Returns the error number, 0 when there is no error. */
ELATECTWN4_C_API int32_t elatectwn4_last_error(elatectwn4_encoder* encoder, elatectwn4_error* error);

/* The members a C host calls most. Each returns an sceReturnCode unless said
 * otherwise; out texts are allocated by the library (elatectwn4_free). */
ELATECTWN4_C_API void elatectwn4_set_reader(elatectwn4_encoder* encoder, const char* reader_name);
ELATECTWN4_C_API int32_t elatectwn4_open(elatectwn4_encoder* encoder);
ELATECTWN4_C_API int32_t elatectwn4_close(elatectwn4_encoder* encoder);
ELATECTWN4_C_API int32_t elatectwn4_state(elatectwn4_encoder* encoder); /* sceEncoderState */
ELATECTWN4_C_API int32_t elatectwn4_read_serial_number(elatectwn4_encoder* encoder, char** serial_number);
ELATECTWN4_C_API char* elatectwn4_atr(elatectwn4_encoder* encoder);
ELATECTWN4_C_API int32_t elatectwn4_card_type(elatectwn4_encoder* encoder); /* sceCardTypes */
ELATECTWN4_C_API int32_t elatectwn4_read_block(elatectwn4_encoder* encoder, int32_t block, const char* key,
                                               uint8_t key_type, char** contents);
ELATECTWN4_C_API int32_t elatectwn4_write_block(elatectwn4_encoder* encoder, int32_t block, const char* key,
                                                uint8_t key_type, const char* contents);
ELATECTWN4_C_API char* elatectwn4_response_text(elatectwn4_encoder* encoder, const char* sw1sw2,
                                                const char* encoder_command);

/* Releasing what the library allocated. NULL is accepted by all three. */
ELATECTWN4_C_API void elatectwn4_free(void* text);
ELATECTWN4_C_API void elatectwn4_value_clear(elatectwn4_value* value);
ELATECTWN4_C_API void elatectwn4_error_clear(elatectwn4_error* error);

#ifdef __cplusplus
}
#endif

#endif /* ELATECTWN4_ELATECTWN4_H */
