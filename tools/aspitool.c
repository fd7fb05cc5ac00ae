/* aspitool: the CD/DVD drives the library reaches on this machine, through
 * ASPI exactly as an application sees them (public header, dynamic
 * linking). The commands are in aspitool_commands.c. */
#include <stdio.h>

#include "tools/aspitool_commands.h"

int main(int argc, char** argv) { return aspitool_main(argc, argv, stdout, stderr); }
