// `korvel port`, `enable`, `disable`, `stop`, `pipeline reset` and `diff`: commands to a running
// agent.
#pragma once

namespace CLI {
class App;
}

// After the commands of `korvel pipeline`.
void addControlCommands(CLI::App& app);
