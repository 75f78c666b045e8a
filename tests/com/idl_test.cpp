// The type library's IDL against the member table: every row declared once,
// in its interface, with its id, kind and parameters as the table has them.
// (tests/wine/com_check.cpp holds the compiled library to the table too.)
#include "com/idl.h"

#include <gtest/gtest.h>

#include <string>

#include "com/typelib.h"

namespace elatectwn4::com {
namespace {

std::size_t Count(const std::string& text, const std::string& what) {
    std::size_t n = 0;
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

// The part of the IDL between "interface NAME : IDispatch" and its end.
std::string InterfaceBody(const std::string& idl, const std::string& name) {
    const auto start = idl.find("interface " + name + " : IDispatch");
    return start == std::string::npos ? std::string() : idl.substr(start, idl.find("    };", start) - start);
}

TEST(TypeLibraryIdl, DeclaresEveryRowOnceInItsInterface) {
    const std::string idl = TypeLibraryIdl();
    std::size_t rows = 0;
    for (const auto& row : MemberRows()) {
        const auto& m = row.info;
        std::string attributes = "[id(" + std::to_string(m.dispId) + ")";
        if (m.kind == MemberKind::PropertyGet) attributes += ", propget";
        if (m.kind == MemberKind::PropertyPut) attributes += ", propput";
        attributes += m.help.empty() ? "]" : ", helpstring(";
        const std::string body = InterfaceBody(idl, std::string(m.interfaceName));
        const auto at = body.find(attributes);
        ASSERT_NE(at, std::string::npos) << m.name;
        EXPECT_EQ(body.find(attributes, at + 1), std::string::npos) << m.name << " declared twice";
        const auto start = body.find('\n', at) + 1;
        const std::string declaration = body.substr(start, body.find(";\n", start) - start);
        EXPECT_EQ(declaration.find("        HRESULT " + std::string(m.name) + "("), 0u) << declaration;
        std::size_t from = 0;
        for (const auto& p : m.params) {
            const std::string direction = p.inOut ? "[in, out] " : p.optional ? "[in, " : "[in] ";
            from = declaration.find(direction, from);
            ASSERT_NE(from, std::string::npos) << m.name << ": " << p.name;
            from = declaration.find(" " + std::string(p.name), from);
            ASSERT_NE(from, std::string::npos) << m.name << ": " << p.name;
        }
        EXPECT_EQ(declaration.find("[out, retval]") != std::string::npos, m.result != ValueType::Void) << m.name;
        ++rows;
    }
    EXPECT_EQ(Count(idl, "        HRESULT "), rows);
}

TEST(TypeLibraryIdl, ListsEveryEnumeratorAndSpellsTheTypesOfTheParameters) {
    const std::string idl = TypeLibraryIdl();
    for (const auto& e : Enumerations()) {
        EXPECT_EQ(Count(idl, "typedef enum " + std::string(e.name) + "\n"), 1u) << e.name;
        for (const auto& member : e.members)
            EXPECT_EQ(Count(idl, " " + std::string(member.name) + " = " + std::to_string(member.value)), 1u)
                << member.name;
    }
    for (const char* declaration :
         {"HRESULT ReadDataBloc([in] long BlocNumber, [in] BSTR Key, [in] unsigned char KeyType, [in, out] BSTR* "
          "BlocContents, [out, retval] sceReturnCode* Result);",
          "HRESULT OpenEncoder([in, defaultvalue(0)] long Handle, [out, retval] sceReturnCode* Result);",
          "[in] SCSS_SecurityLevelEnum Conditions, [in, optional] VARIANT BX, [out, retval] sceReturnCode* Result);",
          "HRESULT LastError([out, retval] _CError** Result);", "HRESULT Number([in] long Value);"})
        EXPECT_NE(idl.find(declaration), std::string::npos) << declaration;
}

}  // namespace
}  // namespace elatectwn4::com
