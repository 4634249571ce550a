// `korvel port`, `enable`, `disable` and `stop`: commands to a running agent.
#pragma once

namespace CLI {
class App;
}

void addControlCommands(CLI::App& app);
