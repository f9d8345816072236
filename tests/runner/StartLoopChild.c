/* The program ambrel_start_loop starts: it returns at once and needs no DLL
   but the system's, so a copy of it alone in a folder starts too. */
int main(void) { return 0; }
