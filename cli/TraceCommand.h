// `korvel trace`: the traces of running and dead processes.
#pragma once

namespace CLI {
class App;
}

void addTraceCommand(CLI::App& app);
