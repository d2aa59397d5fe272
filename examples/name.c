extern const char* const name;
const char* const name = "a job script";
