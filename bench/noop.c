/* The trivial action program of the local-actions benchmark. */
int main(void) { return 0; }
