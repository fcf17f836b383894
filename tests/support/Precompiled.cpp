// Compiles the precompiled header shared by the test programs.
