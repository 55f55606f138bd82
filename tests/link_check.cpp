// Linked from one module and what is below it; there is nothing to run.
int main() {}
