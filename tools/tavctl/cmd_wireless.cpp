// The wireless commands.
#include "tools/tavctl/tavctl.h"

namespace tavctl {

std::span<const Command> wireless_commands() { return {}; }

}  // namespace tavctl
