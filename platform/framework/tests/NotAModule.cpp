// A shared library without CreateModule, for the engine's refusal.
extern "C" __attribute__((visibility("default"))) int hw_not_a_module()
{
    return 42;
}
