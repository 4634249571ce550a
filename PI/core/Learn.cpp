// Learn digests, which no front end of this build takes.
#include "PI/target/pi_learn_imp.h"

pi_status_t pi_learn_new_msg(pi_learn_msg_t* /*msg*/) { return PI_STATUS_LEARN_NO_MATCHING_CB; }
