// `korvel top`: the live picture of a running agent, in the terminal.
#pragma once

namespace CLI {
class App;
}

void addTopCommand(CLI::App& app);
