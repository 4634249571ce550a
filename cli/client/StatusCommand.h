// `korvel status`: whether the switch serves, what failed, and since when.
#pragma once

namespace CLI {
class App;
}

void addStatusCommand(CLI::App& app);
