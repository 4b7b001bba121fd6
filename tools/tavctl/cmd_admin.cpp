// The admin commands.
#include "tools/tavctl/tavctl.h"

namespace tavctl {

std::span<const Command> admin_commands() { return {}; }

}  // namespace tavctl
