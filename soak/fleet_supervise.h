// Supervised-session shapes of korvex_fleet (fleet_supervise.cpp): vanish, flap, idle-supervised.
#pragma once

// True when name is one of the supervised-session shapes.
bool fleet_supervise_shape(const char *name);
// Runs one shape in this process (argv[0] the shape): prints one RESULT line and gives 0, or 1 when
// a check failed.
int fleet_supervise_main(int argc, char **argv);
