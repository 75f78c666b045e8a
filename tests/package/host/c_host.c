/* A C host that uses nothing but <elatectwn4/elatectwn4.h> and the installed
 * libraries. Exits non-zero, saying why, at the first surprise. */
#include <elatectwn4/elatectwn4.h>
#include <stdio.h>
#include <string.h>

static int failures = 0;

static void expect(int condition, const char* what) {
    if (!condition) {
        fprintf(stderr, "c_host: %s\n", what);
        ++failures;
    }
}

static elatectwn4_value value(elatectwn4_type type, int32_t number, const char* text) {
    elatectwn4_value v = {ELATECTWN4_EMPTY, 0, 0.0, NULL, 0};
    v.type = type;
    v.number = number;
    v.text = (char*)text;
    v.length = text != NULL ? strlen(text) : 0;
    return v;
}

/* A late-bound call whose refusal message must hold `says`. */
static void refused(elatectwn4_encoder* enc, const char* member, elatectwn4_value* args, int count, int code,
                    const char* says, const char* what) {
    elatectwn4_value result;
    char* message = NULL;
    expect(elatectwn4_call(enc, member, ELATECTWN4_METHOD, args, count, &result, &message) == code, what);
    expect(message != NULL && strstr(message, says) != NULL && strlen(message) < 300, what);
    elatectwn4_free(message);
}

int main(void) {
    static const char block4[] = "00112233445566778899AABBCCDDEEFF";
    char* message = NULL;
    elatectwn4_encoder* enc;
    char *uid = NULL, *block = NULL, *text;
    elatectwn4_error error;
    elatectwn4_value args[4], result;
    char long_name[4096];

    expect(elatectwn4_create_simulated("no-such-card", NULL, &message) == NULL, "an unknown kind must be refused");
    expect(message != NULL && strlen(message) > 0, "the refusal must say why");
    elatectwn4_free(message);

    enc = elatectwn4_create_simulated("mifare1k", NULL, NULL);
    if (enc == NULL) {
        fprintf(stderr, "c_host: cannot create a simulated encoder\n");
        return 1;
    }
    expect(elatectwn4_state(enc) == 1, "a new encoder is closed");
    expect(elatectwn4_open(enc) == ELATECTWN4_SCE_SUCCESS && elatectwn4_state(enc) == 3, "open on a card");
    expect(elatectwn4_read_serial_number(enc, &uid) == ELATECTWN4_SCE_SUCCESS && uid != NULL && strlen(uid) == 8,
           "a 4-byte UID as 8 hex digits");
    elatectwn4_free(uid);
    text = elatectwn4_atr(enc);
    expect(text != NULL && strncmp(text, "3B 8F 80 01", 11) == 0, "the MIFARE Classic 1K ATR");
    elatectwn4_free(text);
    expect(elatectwn4_write_block(enc, 4, "FFFFFFFFFFFF", 0, block4) == ELATECTWN4_SCE_SUCCESS, "write block 4");
    expect(elatectwn4_read_block(enc, 4, "FFFFFFFFFFFF", 0, &block) == ELATECTWN4_SCE_SUCCESS && block != NULL &&
               strcmp(block, block4) == 0,
           "block 4 reads back");
    elatectwn4_free(block);

    /* The same read, late-bound, with the in/out argument written back. */
    args[0] = value(ELATECTWN4_LONG, 4, NULL);
    args[1] = value(ELATECTWN4_STRING, 0, "FFFFFFFFFFFF");
    args[2] = value(ELATECTWN4_BYTE, 0, NULL);
    args[3] = value(ELATECTWN4_STRING, 0, "");
    expect(elatectwn4_call(enc, "readdatabloc", ELATECTWN4_METHOD, args, 4, &result, NULL) == ELATECTWN4_CALL_OK,
           "late-bound ReadDataBloc");
    expect(result.type == ELATECTWN4_LONG && result.number == ELATECTWN4_SCE_SUCCESS, "its result");
    expect(args[3].type == ELATECTWN4_STRING && args[3].text != NULL && strcmp(args[3].text, block4) == 0,
           "its in/out argument");
    elatectwn4_value_clear(&args[3]);
    elatectwn4_value_clear(&result);

    refused(enc, "NoSuchMember", NULL, 0, ELATECTWN4_CALL_UNKNOWN_NAME, "", "an unknown member");
    refused(enc, "ReadDataBloc", args, 1, ELATECTWN4_CALL_BAD_PARAM_COUNT, "", "a missing argument");
    /* A Byte out of 0..255 is an overflow, not its low eight bits (258 would select key B). */
    args[2].number = 258;
    args[3] = value(ELATECTWN4_STRING, 0, "");
    refused(enc, "ReadDataBloc", args, 4, ELATECTWN4_CALL_OVERFLOW, "258", "a Byte of 258");
    memset(long_name, 'Q', sizeof long_name - 1);
    long_name[sizeof long_name - 1] = '\0';
    refused(enc, long_name, NULL, 0, ELATECTWN4_CALL_UNKNOWN_NAME, "", "a long unknown name, cut");

    /* A refusal lands in the error record. */
    expect(elatectwn4_write_block(enc, 4, "FFFFFFFFFFFF", 0, "0011") == ELATECTWN4_SCE_ERROR, "a short block");
    expect(elatectwn4_last_error(enc, &error) == (int32_t)0x90010B42, "its error number");
    expect(error.description != NULL && strcmp(error.description, "A data bloc must contain 32 hex digits") == 0 &&
               error.com_function != NULL && strcmp(error.com_function, "MifareWriteDataBloc") == 0,
           "its description and function");
    elatectwn4_error_clear(&error);
    text = elatectwn4_response_text(enc, "6982", "");
    expect(text != NULL && strcmp(text, "[Checking error]  Command not allowed, security status not satisfied") == 0,
           "response text of 6982");
    elatectwn4_free(text);
    expect(elatectwn4_close(enc) == ELATECTWN4_SCE_SUCCESS, "close");
    elatectwn4_destroy(enc);

    /* DESFire by name: a Variant out-argument comes back as bytes or a number. */
    enc = elatectwn4_create_simulated("desfire", NULL, NULL);
    expect(enc != NULL && elatectwn4_open(enc) == ELATECTWN4_SCE_SUCCESS, "open a simulated DESFire card");
    args[0] = value(ELATECTWN4_STRING, 0, "0000000000000000");
    expect(elatectwn4_call(enc, "DESFireSelectRoot", ELATECTWN4_METHOD, args, 1, &result, NULL) == ELATECTWN4_CALL_OK &&
               result.number == ELATECTWN4_SCE_SUCCESS,
           "DESFireSelectRoot");
    args[0] = value(ELATECTWN4_LONG, -2, NULL); /* dfvAllData */
    args[1] = value(ELATECTWN4_EMPTY, 0, NULL);
    expect(elatectwn4_call(enc, "DESFireGetVersion", ELATECTWN4_METHOD, args, 2, &result, NULL) == ELATECTWN4_CALL_OK &&
               args[1].type == ELATECTWN4_BYTES && args[1].length == 28,
           "the version record as 28 bytes");
    elatectwn4_value_clear(&args[1]);
    args[0].number = -1; /* dfvStorageSize */
    expect(elatectwn4_call(enc, "DESFireGetVersion", ELATECTWN4_METHOD, args, 2, &result, NULL) == ELATECTWN4_CALL_OK &&
               args[1].type == ELATECTWN4_LONG && args[1].number == 4096,
           "the storage size as a number");
    elatectwn4_value_clear(&args[1]);
    elatectwn4_destroy(enc);
    elatectwn4_destroy(NULL);
    if (failures == 0) printf("c_host: all checks passed\n");
    return failures == 0 ? 0 : 1;
}
