#include "mdsnap/run.h"

// The process sees the low 8 bits of the run's status.
int main(int argc, char** argv) { return mdsnap::RunMain(argc, argv); }
