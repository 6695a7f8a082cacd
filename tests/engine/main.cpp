#include "engine/check.h"

int main(int argc, char** argv) { return run_main(argc, argv); }
