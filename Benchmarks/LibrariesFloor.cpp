// Does nothing, with the shared libraries of the hook: what the loader needs for them is the floor under its
// start-up.
int main() {}
