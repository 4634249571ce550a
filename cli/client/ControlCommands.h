// `korvel port`, `enable`, `disable` and `stop`: what an operator does to a running agent.
#pragma once

namespace CLI {
class App;
}

void addControlCommands(CLI::App& app);
