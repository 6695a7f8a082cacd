// Environment state other engine files consult.
#pragma once

namespace trvo {

bool env_started();
int check_mode();
// Hands a message to the global message handlers, highest priority first.
void send_global_message(void* object, const char* msg, int msgtype, int number);

}  // namespace trvo
