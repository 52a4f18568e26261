/* A shared object that is no plugin: neither metadata nor operations. */
int NotAPlugin(void);
int NotAPlugin(void) { return 0; }
