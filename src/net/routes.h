// net/routes.h: the routes of eth0.
#pragma once

// Makes sure that a route for 224.0.0.0/4 on eth0 exists.
void add_multicast_route();
