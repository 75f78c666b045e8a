// The in-process PC/SC boundary: the resource manager's answers for handles,
// sharing, removal and reset, attributes, and two readers used at once.
#include "sim/simulated_pcsc.h"

#include <gtest/gtest.h>

#include "apdu_helpers.h"

namespace {

using namespace elatectwn4;
using namespace elatectwn4::sim;
using namespace simtest;

constexpr const char* kReader0 = "Virtual PCD 00 00";
constexpr const char* kReader1 = "Virtual PCD 00 01";

std::string Code(std::uint32_t code) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", code);
    return text;
}

struct Pcsc {
    SimulatedPcsc pcsc;
    PcscHandle context = 0;

    Pcsc() { EXPECT_EQ(Code(pcsc.EstablishContext(pcsc_const::ScopeSystem, context)), "0x00000000"); }

    std::uint32_t Connect(const std::string& reader, PcscHandle& card, std::uint32_t share = pcsc_const::ShareExclusive,
                          PcscHandle ctx = 0) {
        std::uint32_t protocol = 0;
        const auto rc = pcsc.Connect(ctx ? ctx : context, reader, share, pcsc_const::ProtocolT1, card, protocol);
        if (rc == pcsc_code::Success) {
            EXPECT_EQ(protocol, pcsc_const::ProtocolT1);
        }
        return rc;
    }

    // The answer as hex, or the PC/SC code when the transmission failed.
    std::string Send(PcscHandle card, std::string_view apdu) {
        std::array<std::uint8_t, pcsc_const::MaxAnswer> buffer{};
        std::size_t received = buffer.size();
        const auto rc = pcsc.Transmit(card, pcsc_const::ProtocolT1, B(apdu), buffer, received);
        if (rc != pcsc_code::Success) return Code(rc);
        return H(Bytes(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(received)));
    }
};

TEST(SimulatedPcsc, ListsTheTwoVirtualReadersAndHandsOutDistinctContexts) {
    Pcsc p;
    std::vector<std::string> readers;
    ASSERT_EQ(p.pcsc.ListReaders(p.context, readers), pcsc_code::Success);
    EXPECT_EQ(readers, (std::vector<std::string>{kReader0, kReader1}));

    PcscHandle other = 0;
    ASSERT_EQ(p.pcsc.EstablishContext(pcsc_const::ScopeSystem, other), pcsc_code::Success);
    EXPECT_NE(other, 0);
    EXPECT_NE(other, p.context);
    EXPECT_EQ(Code(p.pcsc.EstablishContext(7, other)), "0x80100011");
    EXPECT_EQ(p.pcsc.ReleaseContext(other), pcsc_code::Success);
    EXPECT_EQ(Code(p.pcsc.ReleaseContext(other)), "0x80100003");
    EXPECT_EQ(Code(p.pcsc.ListReaders(other, readers)), "0x80100003");

    SimulatedPcsc none{std::vector<std::string>{}};
    PcscHandle context = 0;
    ASSERT_EQ(none.EstablishContext(pcsc_const::ScopeSystem, context), pcsc_code::Success);
    EXPECT_EQ(Code(none.ListReaders(context, readers)), "0x8010002E");
}

TEST(SimulatedPcsc, ConnectRefusalsCarryTheResourceManagersCodes) {
    Pcsc p;
    p.pcsc.FindReader(kReader1)->Insert(MakeCard("mifare1k"));
    PcscHandle card = 0;
    std::uint32_t protocol = 0;
    EXPECT_EQ(Code(p.Connect("Virtual PCD 00 02", card)), "0x80100009");
    EXPECT_EQ(Code(p.Connect(kReader0, card)), "0x8010000C");
    EXPECT_EQ(Code(p.pcsc.Connect(p.context + 1000, kReader1, 1, 2, card, protocol)), "0x80100003");
    EXPECT_EQ(Code(p.pcsc.Connect(p.context, kReader1, 1, pcsc_const::ProtocolT0, card, protocol)), "0x8010000F");
    EXPECT_EQ(Code(p.pcsc.Connect(p.context, kReader1, 3, 2, card, protocol)), "0x80100011");
    EXPECT_EQ(card, 0) << "a refused connection hands out no handle";
}

TEST(SimulatedPcsc, ExclusiveShareExcludesEveryOtherConnection) {
    struct Row {
        std::uint32_t first, second;
        const char* result;
    } rows[] = {
        {pcsc_const::ShareExclusive, pcsc_const::ShareExclusive, "0x8010000B"},
        {pcsc_const::ShareExclusive, pcsc_const::ShareShared, "0x8010000B"},
        {pcsc_const::ShareShared, pcsc_const::ShareExclusive, "0x8010000B"},
        {pcsc_const::ShareShared, pcsc_const::ShareShared, "0x00000000"},
    };
    for (const auto& row : rows) {
        Pcsc p;
        p.pcsc.FindReader(kReader0)->Insert(MakeCard("mifare1k"));
        PcscHandle other = 0;
        ASSERT_EQ(p.pcsc.EstablishContext(pcsc_const::ScopeSystem, other), pcsc_code::Success);
        PcscHandle first = 0, second = 0;
        ASSERT_EQ(p.Connect(kReader0, first, row.first), pcsc_code::Success);
        EXPECT_EQ(Code(p.Connect(kReader0, second, row.second, other)), row.result);
        // Once the first lets go, the second always gets in.
        EXPECT_EQ(p.pcsc.Disconnect(first, pcsc_const::LeaveCard), pcsc_code::Success);
        if (second) {
            EXPECT_EQ(p.pcsc.Disconnect(second, pcsc_const::LeaveCard), pcsc_code::Success);
        }
        EXPECT_EQ(Code(p.Connect(kReader0, second, row.second, other)), "0x00000000");
    }
}

TEST(SimulatedPcsc, StatusAndAttributesDescribeTheReaderAndCard) {
    Pcsc p;
    p.pcsc.FindReader(kReader0)->Insert(MakeCard("mifare4k"));
    PcscHandle card = 0;
    ASSERT_EQ(p.Connect(kReader0, card), pcsc_code::Success);

    PcscStatus status;
    ASSERT_EQ(p.pcsc.Status(card, status), pcsc_code::Success);
    EXPECT_EQ(status.readerName, kReader0);
    EXPECT_EQ(status.state, 0x34u);  // present, powered, negotiable
    EXPECT_EQ(status.protocol, pcsc_const::ProtocolT1);
    EXPECT_EQ(H(status.atr), "3B8F8001804F0CA0000003060300020000000069");

    struct Row {
        std::uint32_t attribute;
        const char* value;  // hex, or a PC/SC code
    } rows[] = {
        {pcsc_const::AttrAtrString, "3B8F8001804F0CA0000003060300020000000069"},
        {pcsc_const::AttrDeviceFriendlyName, "5669727475616C2050434420303020303000"},  // the name, NUL-terminated
        {pcsc_const::AttrVendorIfdVersion, "00000001"},
        {pcsc_const::AttrVendorIfdSerialNo, "53494D303030303000"},  // "SIM00000"
        {0x00010104, "0x8010001F"},
    };
    for (const auto& row : rows) {
        std::vector<std::uint8_t> value;
        const auto rc = p.pcsc.GetAttrib(card, row.attribute, value);
        EXPECT_EQ(rc == pcsc_code::Success ? H(value) : Code(rc), row.value) << Code(row.attribute);
    }
    std::vector<std::uint8_t> vendor;
    ASSERT_EQ(p.pcsc.GetAttrib(card, pcsc_const::AttrVendorName, vendor), pcsc_code::Success);
    EXPECT_EQ(std::string(vendor.begin(), vendor.end()), std::string(kSimVendorName) + '\0');

    p.pcsc.SetAtrAttributeSupported(false);
    std::vector<std::uint8_t> atr;
    EXPECT_EQ(Code(p.pcsc.GetAttrib(card, pcsc_const::AttrAtrString, atr)), "0x8010001F");
    EXPECT_EQ(Code(p.pcsc.GetAttrib(card + 1000, pcsc_const::AttrVendorName, atr)), "0x80100003");
}

TEST(SimulatedPcsc, TransmitChecksProtocolAndReceiveBuffer) {
    Pcsc p;
    p.pcsc.FindReader(kReader0)->Insert(MakeCard("mifare1k"));
    PcscHandle card = 0;
    ASSERT_EQ(p.Connect(kReader0, card), pcsc_code::Success);
    EXPECT_EQ(p.Send(card, "FF CA 00 00 00"), "CF1E2D3C9000");

    const auto command = B("FF CA 00 00 00");
    std::array<std::uint8_t, 16> buffer{};
    std::size_t received = 5;  // one byte short of the answer
    EXPECT_EQ(Code(p.pcsc.Transmit(card, pcsc_const::ProtocolT1, command, buffer, received)), "0x80100008");
    EXPECT_EQ(received, 6u) << "the length the answer needs";
    received = buffer.size();
    EXPECT_EQ(Code(p.pcsc.Transmit(card, pcsc_const::ProtocolT0, command, buffer, received)), "0x8010000F");
    received = buffer.size();
    EXPECT_EQ(Code(p.pcsc.Transmit(card, pcsc_const::ProtocolT1, {}, buffer, received)), "0x80100004");
    EXPECT_EQ(p.Send(card + 1000, "FF CA 00 00 00"), "0x80100003");
}

TEST(SimulatedPcsc, RemovedCardInvalidatesTheHandleUntilReconnection) {
    Pcsc p;
    auto reader = p.pcsc.FindReader(kReader0);
    auto mifare = MakeCard("mifare1k");
    reader->Insert(mifare);
    PcscHandle card = 0;
    ASSERT_EQ(p.Connect(kReader0, card), pcsc_code::Success);
    EXPECT_EQ(p.Send(card, LoadKey(1, "FFFFFFFFFFFF")), "9000");
    EXPECT_EQ(p.Send(card, Auth(4, 'A', 1)), "9000");

    reader->Remove();
    EXPECT_EQ(p.Send(card, Read(4)), "0x80100069");
    reader->Insert(mifare);  // the same card comes back
    EXPECT_EQ(p.Send(card, Read(4)), "0x80100069");
    PcscStatus status;
    EXPECT_EQ(Code(p.pcsc.Status(card, status)), "0x80100069");
    // The stale handle still holds its exclusive share.
    PcscHandle fresh = 0;
    EXPECT_EQ(Code(p.Connect(kReader0, fresh)), "0x8010000B");
    EXPECT_EQ(p.pcsc.Disconnect(card, pcsc_const::LeaveCard), pcsc_code::Success);
    ASSERT_EQ(p.Connect(kReader0, fresh), pcsc_code::Success);
    EXPECT_NE(fresh, card);
    // The card was powered afresh: the old authentication is gone.
    EXPECT_EQ(p.Send(fresh, Read(4)), "6982");
    EXPECT_EQ(p.Send(fresh, Auth(4, 'A', 1)), "9000");
    EXPECT_EQ(p.Send(fresh, Read(4)), "000000000000000000000000000000009000");
}

TEST(SimulatedPcsc, ResetDispositionResetsTheCardForOtherConnections) {
    Pcsc p;
    p.pcsc.FindReader(kReader0)->Insert(MakeCard("mifare1k"));
    PcscHandle first = 0, second = 0;
    ASSERT_EQ(p.Connect(kReader0, first, pcsc_const::ShareShared), pcsc_code::Success);
    ASSERT_EQ(p.Connect(kReader0, second, pcsc_const::ShareShared), pcsc_code::Success);
    EXPECT_EQ(p.Send(second, LoadKey(1, "FFFFFFFFFFFF")), "9000");
    EXPECT_EQ(p.Send(second, Auth(4, 'A', 1)), "9000");
    ASSERT_EQ(p.pcsc.Disconnect(first, pcsc_const::ResetCard), pcsc_code::Success);
    EXPECT_EQ(p.Send(second, Read(4)), "0x80100068");
    PcscStatus status;
    EXPECT_EQ(Code(p.pcsc.Status(second, status)), "0x80100068");
    ASSERT_EQ(p.pcsc.Disconnect(second, pcsc_const::LeaveCard), pcsc_code::Success);
    ASSERT_EQ(p.Connect(kReader0, second), pcsc_code::Success);
    EXPECT_EQ(p.Send(second, Read(4)), "6982") << "the reset ended the authentication";
}

TEST(SimulatedPcsc, ReleasingAContextDisconnectsItsCards) {
    Pcsc p;
    p.pcsc.FindReader(kReader0)->Insert(MakeCard("mifare1k"));
    PcscHandle card = 0;
    ASSERT_EQ(p.Connect(kReader0, card), pcsc_code::Success);
    ASSERT_EQ(p.pcsc.ReleaseContext(p.context), pcsc_code::Success);
    EXPECT_EQ(p.Send(card, "FF CA 00 00 00"), "0x80100003");
    PcscHandle context = 0, again = 0;
    ASSERT_EQ(p.pcsc.EstablishContext(pcsc_const::ScopeSystem, context), pcsc_code::Success);
    EXPECT_EQ(Code(p.Connect(kReader0, again, pcsc_const::ShareExclusive, context)), "0x00000000");
}

}  // namespace
