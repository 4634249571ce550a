// What a pipeline asks of the PI library, by the extensions in its device configuration.
#include "PI/target/pi_extensions_imp.h"
#include "pipeline/Extensions.h"

extern "C" void _pi_abilities(const char* device_data, size_t device_data_size,
                              pi_abilities_t* abilities) {
  const auto extensions = Pipeline::extensionsIn({device_data, device_data_size});
  *abilities = {.fields = extensions.fields ? 1 : 0,
                .default_actions = extensions.defaultActions ? 1 : 0,
                .packet_headers = extensions.packetHeaders ? 1 : 0,
                .entities = extensions.entities ? 1 : 0,
                .strings = extensions.strings ? 1 : 0,
                .watch_ports = extensions.watchPorts ? 1 : 0,
                .default_resources = extensions.defaultResources ? 1 : 0};
}
