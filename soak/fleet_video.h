// Video-server shapes of korvex_fleet (fleet_video.cpp): cameras, control and send.
#pragma once

// True when name is one of the video shapes.
bool fleet_video_shape(const char *name);
// Runs one shape: argv[0] the shape, argv[1] the number of links, argv[2] the seconds of the window
// (10 by default). Prints one RESULT line and ends the process with 0, 1 when a check failed, or 2
// for a bad argument.
int fleet_video_main(int argc, char **argv);
