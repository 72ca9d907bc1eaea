int main() { return 0; }  // (placeholder: the command-line tool lands next)
