// The maint commands.
#include "tools/tavctl/tavctl.h"

namespace tavctl {

std::span<const Command> maint_commands() { return {}; }

}  // namespace tavctl
