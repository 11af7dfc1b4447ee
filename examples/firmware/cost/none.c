/* The baseline image: start-up code and the C library's exit, no model. */
int main(void) { return 0; }
