// What NETCONF over SSH's front end costs beside the agent socket: whole configurations, small requests, memory.
#pragma once

int bench_netconf(); // prints its table; 0 or -1
