int main() { return 0; }  // (placeholder: the interest service lands next)
