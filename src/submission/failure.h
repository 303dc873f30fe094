// What went wrong between this library and a submission server, as the parts of that path tell it to each
// other.
#pragma once

#include <string>

struct SubmissionFailure
{
    int code = 0;       // the host's; 0 for none
    std::string text{}; // with the server's words; empty: the error is raised already

    [[nodiscard]] bool IsSet() const { return code != 0; }
};
