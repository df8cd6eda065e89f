int ryl_test_plugin(void) { return 42; }
