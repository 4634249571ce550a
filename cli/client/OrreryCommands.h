// `korvel get`, `set`, `create`, `delete`, `watch` and `call`: the state database of a running
// agent.
#pragma once

namespace CLI {
class App;
}

void addOrreryCommands(CLI::App& app);
