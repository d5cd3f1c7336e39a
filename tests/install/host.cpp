// A host that knows nothing but the installed library. It needs no model: a session must report
// that it has none, and the kernel switch that the host sets must be the one the library reads.
#include <cstring>

#include "dnnvad/dnn_vad.h"

int main() {
    tz_dnnvad::CMFE session;
    tz_dnnvad::DNN network(nullptr, "");
    const float in[9] = {0.1F, 0.7F, -1.3F, 2.9F, 0.4F, -0.6F, 1.7F, 3.1F, -2.2F};
    float exact[9], fast[9];
    network.softmax(in, exact, 9);
    tz_dnnvad::qn_math = 4;
    network.softmax(in, fast, 9);
    const bool switched = std::memcmp(exact, fast, sizeof(exact)) != 0;
    return session.mfeInit("") == -1 && switched ? 0 : 1;
}
