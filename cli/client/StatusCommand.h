// `korvel status`: whether the switch serves, its failures, and since when.
#pragma once

namespace CLI {
class App;
}

void addStatusCommand(CLI::App& app);
