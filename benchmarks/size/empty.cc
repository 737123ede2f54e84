// A program that does nothing: what every program takes.
int main() { return 0; }
