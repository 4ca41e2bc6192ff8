/* A tiny shared object for the dynamic loading tests. */
__attribute__((visibility("default"))) int kx_test_plugin_answer(int x) { return x * 2 + 1; }
