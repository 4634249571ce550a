// `korvel table`: the rows that forwarding agents program, read from shared memory.
#pragma once

namespace CLI {
class App;
}

void addTableCommand(CLI::App& app);
