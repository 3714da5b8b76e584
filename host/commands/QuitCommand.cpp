// quit: leaves the host.
#include "host/Command.h"

namespace Q7Agent {
namespace {

class QuitCommand : public Command {
public:
    void run(Host& host) override { host.quittingIs(true); }
};

CommandRegistrar<QuitCommand> const registrar("quit", "quit", "leave the host");

} // namespace
} // namespace Q7Agent
