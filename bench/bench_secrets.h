// What sensitive leaves cost, beside the same leaves in clear.
#pragma once

// Prints a table. 0 or -1.
int bench_secrets();
