// A minimal host: creates an Encoder, reads its identity and the state of a
// reader that does not exist, and reports what it saw.
#include <elatectwn4/encoder.h>

#include <iostream>

int main() {
    elatectwn4::Encoder encoder;
    const std::string info = encoder.GetInformation();
    encoder.Parameters("Device=No such reader");
    const auto state = encoder.EncoderState();
    if (state != elatectwn4::sceClosed || encoder.LastError().Number != 0) {
        std::cerr << "unexpected state " << state << '\n';
        return 1;
    }
    std::cout << info << '\n';
    return 0;
}
