/* Targets may be written in C: the headers they see must be C. */
#include "PI/int/pi_frontend_hooks.h"
#include "PI/int/pi_int.h"
#include "PI/pi.h"
#include "PI/pi_act_prof.h"
#include "PI/pi_base.h"
#include "PI/pi_clone.h"
#include "PI/pi_counter.h"
#include "PI/pi_extensions.h"
#include "PI/pi_learn.h"
#include "PI/pi_mc.h"
#include "PI/pi_meter.h"
#include "PI/pi_tables.h"
#include "PI/proto/pi_server.h"
#include "PI/proto/pi_server_process.h"
#include "PI/target/pi_act_prof_imp.h"
#include "PI/target/pi_clone_imp.h"
#include "PI/target/pi_counter_imp.h"
#include "PI/target/pi_extensions_imp.h"
#include "PI/target/pi_imp.h"
#include "PI/target/pi_learn_imp.h"
#include "PI/target/pi_mc_imp.h"
#include "PI/target/pi_meter_imp.h"
#include "PI/target/pi_tables_imp.h"

/* The numbers that targets rely on. */
_Static_assert(PI_STATUS_PACKETOUT_SEND_ERROR == 38, "");
_Static_assert(PI_STATUS_NOT_IMPLEMENTED_BY_TARGET == 39, "");
_Static_assert(PI_STATUS_BATCH_UPDATE_FAILED == 40, "");
