#include "tools/conform/PeerTrial.h"

namespace {

struct PeerDuty {
    const char* name;
    const char* text;
    Outcome (PeerTrial::*find)() const;
};

const PeerDuty DUTIES[] = {
    {"header", "sends packets with the header of this protocol", &PeerTrial::Header},
    {"message", "sends one message in a packet, a read or a write", &PeerTrial::Message},
    {"numbers", "numbers its packets", &PeerTrial::Numbers},
    {"repeat", "repeats, unchanged, what was not acknowledged", &PeerTrial::Repeat},
    {"stop", "ends with the acknowledgement", &PeerTrial::Stop},
    {"refused", "ends with a refusal", &PeerTrial::Refused},
    {"request-id", "gives its reads an identifier", &PeerTrial::RequestId},
    {"ask-again", "reads again without a reply", &PeerTrial::AskAgain},
    {"writes", "writes outputs, each once in a message", &PeerTrial::Writes},
};

}  // namespace

void ExaminePeer(const BusSettings& bus, const ConformSettings& settings, const TellFinding& tell) {
    PeerTrial trial(bus, settings);
    trial.Run();
    for (const PeerDuty& duty : DUTIES) {
        tell({duty.name, duty.text, (trial.*duty.find)()});
    }
}
