// kavo-bench-instructions: see instructions.cpp, which the shared object
// kavo-bench-world carries together with the library and the fixture world.
extern "C" int KavoInstructionBench();

int main() { return KavoInstructionBench(); }
