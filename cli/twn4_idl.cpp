// twn4-idl: prints the component's type library as IDL, for the Windows
// build to compile into the COM server's .tlb.
#include <iostream>

#include "com/idl.h"

int main() {
    std::cout << elatectwn4::com::TypeLibraryIdl();
    return std::cout ? 0 : 1;
}
