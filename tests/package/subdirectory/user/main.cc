bool HostReports(const char* url);

int main(int, char** argv) { return HostReports(argv[1]) ? 0 : 1; }
