// Where hosts have always found InitialiseHttp and TerminateHttp. The start-up wires every layer
// together and lives above them (net/startup/http_init.h); nothing in net/ includes this header.
#pragma once

#include "net/startup/http_init.h"
