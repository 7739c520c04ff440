// The session component: its start-up stages and the operations create-session, close-session, kill-session, shutdown.
#pragma once

int session_init(int stage);
void session_exit();
int session_reg_operation();
