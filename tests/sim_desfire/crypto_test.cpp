// The card's legacy primitives against published vectors and against the
// independent host computations.
#include <gtest/gtest.h>
#include <openssl/rand.h>

#include "host.h"
#include "sim/desfire/desfire_crypto.h"

namespace card = elatectwn4::sim::desfire;
using namespace desfire_test;

namespace {

Bytes Random(std::size_t n) {
    Bytes b(n);
    RAND_bytes(b.data(), static_cast<int>(n));
    return b;
}

// Keys of both kinds, none of them the weak all-zero key.
const char* const kKeys[] = {
    "133457799BBCDFF1",                  // single DES (halves equal)
    "0123456789ABCDEF",                  // single DES
    "00112233445566778899AABBCCDDEEFF",  // two-key Triple-DES
    "4A1B7C3D5E6F708192A3B4C5D6E7F809",  // two-key Triple-DES
};

}  // namespace

TEST(Crc16, MatchesTheIso14443CrcAExamples) {
    struct Case {
        const char* data;
        const char* crcLowFirst;
    } const cases[] = {
        {"", "6363"},
        {"0000", "A01E"},                // ISO/IEC 14443-3 annex example
        {"313233343536373839", "05BF"},  // check value of CRC-16/ISO-IEC-14443-3-A: 0xBF05
    };
    for (const auto& c : cases) {
        Bytes out;
        card::AppendCrc16(out, Hex(c.data));
        EXPECT_EQ(ToHex(out), c.crcLowFirst) << "data " << c.data;
    }
}

TEST(LegacyCipher, EnciphersTheClassicDesVector) {
    // FIPS 46 worked example: key 133457799BBCDFF1, plain 0123456789ABCDEF.
    const card::LegacyCipher cipher(MakeKey("133457799BBCDFF1"));
    EXPECT_EQ(ToHex(cipher.Encipher(Hex("0123456789ABCDEF"))), "85E813540F0AB405");
}

TEST(LegacyCipher, AgreesWithTheHostInEveryModeForEveryKeyAndLength) {
    for (const char* hex : kKeys) {
        const Key key = MakeKey(hex);
        const card::LegacyCipher cipher(key);
        for (std::size_t n : {1u, 4u, 8u, 9u, 16u, 31u, 40u, 59u}) {
            SCOPED_TRACE(std::string(hex) + " length " + std::to_string(n));
            const Bytes data = Random(n);
            EXPECT_EQ(card::Crc16(data), CrcA(data));
            EXPECT_EQ(ToHex(cipher.ComputeMac(data)), ToHex(LegacyMac(key, data)));
            if (n % 8) continue;
            EXPECT_EQ(ToHex(cipher.UndoSendMode(SendMode(key, data))), ToHex(data));
            EXPECT_EQ(ToHex(ReceiveMode(key, cipher.EncipherCbc(data))), ToHex(data));
        }
    }
}
