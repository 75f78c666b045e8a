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

int main(void) {
    char* message = NULL;
    elatectwn4_encoder* enc;
    char* uid = NULL;
    char* block = NULL;
    char* atr;
    char* text;
    elatectwn4_error error;
    elatectwn4_value args[4];
    elatectwn4_value result;
    char long_name[4096];
    int rc;

    expect(elatectwn4_create_simulated("no-such-card", NULL, &message) == NULL, "an unknown kind must be refused");
    expect(message != NULL && strlen(message) > 0, "the refusal must say why");
    elatectwn4_free(message);

    enc = elatectwn4_create_simulated("mifare1k", NULL, NULL);
    if (enc == NULL) {
        fprintf(stderr, "c_host: cannot create a simulated encoder\n");
        return 1;
    }
    expect(elatectwn4_state(enc) == 1, "a new encoder is closed");
    expect(elatectwn4_open(enc) == ELATECTWN4_SCE_SUCCESS, "open");
    expect(elatectwn4_state(enc) == 3, "a card is on the reader");

    expect(elatectwn4_read_serial_number(enc, &uid) == ELATECTWN4_SCE_SUCCESS, "serial number");
    expect(uid != NULL && strlen(uid) == 8, "a 4-byte UID as 8 hex digits");

    atr = elatectwn4_atr(enc);
    expect(atr != NULL && strncmp(atr, "3B 8F 80 01", 11) == 0, "the MIFARE Classic 1K ATR");
    elatectwn4_free(atr);

    expect(
        elatectwn4_write_block(enc, 4, "FFFFFFFFFFFF", 0, "00112233445566778899AABBCCDDEEFF") == ELATECTWN4_SCE_SUCCESS,
        "write block 4");
    expect(elatectwn4_read_block(enc, 4, "FFFFFFFFFFFF", 0, &block) == ELATECTWN4_SCE_SUCCESS, "read block 4");
    expect(block != NULL && strcmp(block, "00112233445566778899AABBCCDDEEFF") == 0, "block 4 reads back");
    elatectwn4_free(block);

    /* The same read, late-bound, with the in/out argument written back. */
    memset(args, 0, sizeof args);
    args[0].type = ELATECTWN4_LONG;
    args[0].number = 4;
    args[1].type = ELATECTWN4_STRING;
    args[1].text = (char*)"FFFFFFFFFFFF";
    args[1].length = 12;
    args[2].type = ELATECTWN4_BYTE;
    args[2].number = 0;
    args[3].type = ELATECTWN4_STRING;
    args[3].text = (char*)"";
    rc = elatectwn4_call(enc, "readdatabloc", ELATECTWN4_METHOD, args, 4, &result, NULL);
    expect(rc == ELATECTWN4_CALL_OK, "late-bound ReadDataBloc");
    expect(result.type == ELATECTWN4_LONG && result.number == ELATECTWN4_SCE_SUCCESS, "its result");
    expect(args[3].type == ELATECTWN4_STRING && args[3].text != NULL &&
               strcmp(args[3].text, "00112233445566778899AABBCCDDEEFF") == 0,
           "its in/out argument");
    elatectwn4_value_clear(&args[3]);
    elatectwn4_value_clear(&result);

    rc = elatectwn4_call(enc, "NoSuchMember", ELATECTWN4_METHOD, NULL, 0, &result, &message);
    expect(rc == ELATECTWN4_CALL_UNKNOWN_NAME, "an unknown member is refused");
    elatectwn4_free(message);
    rc = elatectwn4_call(enc, "ReadDataBloc", ELATECTWN4_METHOD, args, 1, &result, &message);
    expect(rc == ELATECTWN4_CALL_BAD_PARAM_COUNT, "a missing argument is refused");
    elatectwn4_free(message);
    /* A Byte out of 0..255 is an overflow as a Long out of range is, not its low
     * eight bits (258 would select key B). */
    args[2].number = 258;
    args[3].type = ELATECTWN4_STRING;
    args[3].text = (char*)"";
    rc = elatectwn4_call(enc, "ReadDataBloc", ELATECTWN4_METHOD, args, 4, &result, &message);
    expect(rc == ELATECTWN4_CALL_OVERFLOW && message != NULL && strstr(message, "258") != NULL,
           "a Byte of 258 is an overflow");
    elatectwn4_free(message);
    memset(long_name, 'Q', sizeof long_name - 1);
    long_name[sizeof long_name - 1] = '\0';
    rc = elatectwn4_call(enc, long_name, ELATECTWN4_METHOD, NULL, 0, &result, &message);
    expect(rc == ELATECTWN4_CALL_UNKNOWN_NAME && message != NULL && strlen(message) < 120,
           "a long unknown name is cut in the message");
    elatectwn4_free(message);

    /* A card refusal lands in the error record. */
    expect(elatectwn4_write_block(enc, 4, "FFFFFFFFFFFF", 0, "0011") == ELATECTWN4_SCE_ERROR, "a short block");
    expect(elatectwn4_last_error(enc, &error) == (int32_t)0x90010B42, "its error number");
    expect(error.description != NULL && strcmp(error.description, "A data bloc must contain 32 hex digits") == 0,
           "its description");
    expect(error.com_function != NULL && strcmp(error.com_function, "MifareWriteDataBloc") == 0, "its function");
    elatectwn4_error_clear(&error);

    text = elatectwn4_response_text(enc, "6982", "");
    expect(text != NULL && strcmp(text, "[Checking error]  Command not allowed, security status not satisfied") == 0,
           "response text of 6982");
    elatectwn4_free(text);

    expect(elatectwn4_close(enc) == ELATECTWN4_SCE_SUCCESS, "close");
    elatectwn4_free(uid);
    elatectwn4_destroy(enc);

    /* DESFire by name: a Variant out-argument comes back as bytes or a number. */
    enc = elatectwn4_create_simulated("desfire", NULL, NULL);
    expect(enc != NULL && elatectwn4_open(enc) == ELATECTWN4_SCE_SUCCESS, "open a simulated DESFire card");
    memset(args, 0, sizeof args);
    args[0].type = ELATECTWN4_STRING;
    args[0].text = (char*)"0000000000000000";
    args[0].length = 16;
    rc = elatectwn4_call(enc, "DESFireSelectRoot", ELATECTWN4_METHOD, args, 1, &result, NULL);
    expect(rc == ELATECTWN4_CALL_OK && result.number == ELATECTWN4_SCE_SUCCESS, "DESFireSelectRoot");
    memset(args, 0, sizeof args);
    args[0].type = ELATECTWN4_LONG;
    args[0].number = -2; /* dfvAllData */
    rc = elatectwn4_call(enc, "DESFireGetVersion", ELATECTWN4_METHOD, args, 2, &result, NULL);
    expect(rc == ELATECTWN4_CALL_OK && result.number == ELATECTWN4_SCE_SUCCESS, "DESFireGetVersion");
    expect(args[1].type == ELATECTWN4_BYTES && args[1].length == 28, "the version record as 28 bytes");
    elatectwn4_value_clear(&args[1]);
    args[0].number = -1; /* dfvStorageSize */
    rc = elatectwn4_call(enc, "DESFireGetVersion", ELATECTWN4_METHOD, args, 2, &result, NULL);
    expect(rc == ELATECTWN4_CALL_OK && args[1].type == ELATECTWN4_LONG && args[1].number == 4096,
           "the storage size as a number");
    elatectwn4_value_clear(&args[1]);
    elatectwn4_destroy(enc);
    elatectwn4_destroy(NULL);
    if (failures == 0) printf("c_host: all checks passed\n");
    return failures == 0 ? 0 : 1;
}
