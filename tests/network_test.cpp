// Model files, good and bad.
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "dnnvad/vad_nn.h"
#include "model_writer.h"
#include "test_support.h"

namespace {

using namespace tz_dnnvad;
using test::Model;
using test::printed;
using test::TempFile;
using Floats = std::vector<float>;

const std::string kPrefix = "ERROR:[dnnvad/vad_nn.cpp:]";

struct Loaded {
    std::unique_ptr<DNN> net;
    std::string log;  // without its prefix
};

Loaded load(const std::string& bytes) {
    const TempFile file(bytes);
    Loaded result;
    result.log = printed([&] { result.net = std::make_unique<DNN>(nullptr, file.path()); });
    const std::size_t path = result.log.find(file.path());
    if (path != std::string::npos) {
        result.log.replace(path, std::string(file.path()).size(), "PATH");
    }
    EXPECT_EQ(result.log.substr(0, kPrefix.size()), result.log.empty() ? "" : kPrefix);
    result.log.erase(0, kPrefix.size());
    return result;
}

TEST(ModelFile, EverythingInItsPlace) {
    Model model = test::random_model({3, 5, 2});
    model.header = {2, 0x0A0A0A0A, 10, -7, 256};  // line ends inside the binary words are data
    model.means = {-1.5F, 2.25F};
    model.rev_vars = {0.5F, 4.0F};
    model.header_rest = "anything\n";
    model.mean_line = "  meanvec\t2 rest of the line\n";
    const Loaded loaded = load(model.bytes() + "what follows is not read");
    const DNN& net = *loaded.net;
    EXPECT_EQ(loaded.log, "");
    EXPECT_EQ(net._state, 2);
    const std::vector<int> header = {net._feat_dim, net._sample_rate, net._low_freq, net._high_freq,
                                     net._header_flag ? 256 : 0};
    EXPECT_EQ(header, model.header);
    EXPECT_EQ(Floats(net._mean_vec, net._mean_vec + 2), model.means);
    EXPECT_EQ(Floats(net._rev_var_vec, net._rev_var_vec + 2), model.rev_vars);
    EXPECT_EQ(std::vector<int>(net._layer_size, net._layer_size + net._layer_number), model.sizes);
    EXPECT_EQ(net._max_layer_size, 5);
    Floats parameters;
    for (std::size_t k = 0; k < 2; ++k) {
        const int in = model.sizes[k], out = model.sizes[k + 1];
        parameters.insert(parameters.end(), net._weights[k], net._weights[k] + in * out);
        parameters.insert(parameters.end(), net._biases[k], net._biases[k] + out);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(net._weights[k]) % 16, 0U);
    }
    EXPECT_EQ(parameters, model.parameters);
}

TEST(ModelFile, ParameterCountThatDisagreesIsAWarning) {
    Model model = test::random_model({3, 2});
    const Floats all = model.parameters;
    model.parameters.resize(7);
    const Loaded fewer = load(model.bytes());
    EXPECT_EQ(fewer.net->getState(), 2);
    EXPECT_EQ(fewer.log, "read_param_num[8] != param_num[7]\n");
    EXPECT_EQ(fewer.net->_biases[0][0], all[6]);
    EXPECT_EQ(fewer.net->_biases[0][1], 0.0F);
    model.sizes = {26};
    const Loaded single = load(model.bytes());
    EXPECT_EQ(single.net->getState(), 2);
    EXPECT_EQ(single.log, "read_param_num[0] != param_num[7]\n");
    float out = 5.0F;
    EXPECT_EQ(single.net->forward(all.data(), 26, &out), 0);
    EXPECT_EQ(out, 5.0F);
    int sizes[] = {2, 2};
    fewer.net->set_topology(2, sizes);
    printed([&] { fewer.net->set_network(all.data(), 5); });
    EXPECT_EQ(fewer.net->_biases[0][0], all[4]);
    std::free(std::exchange(fewer.net->_tmp_buf, nullptr));  // an incomplete network takes nothing
    EXPECT_EQ(printed([&] { fewer.net->set_network(all.data(), 5); }),
              kPrefix + "read_param_num[0] != param_num[5]\n");
    fewer.net->set_topology(1, sizes);  // (what it then frees does not depend on this)
}

TEST(ModelFile, MalformedFilesAreRefusedWithTheirReason) {
    const auto block = [](int k) {
        const std::string n = std::to_string(k);
        return "DNN init memory new failure curLayer:" + n + " matrixSize:" + n + " baseSize:" + n +
               "!\n\n";
    };
    const auto layers = [](std::vector<std::int32_t> sizes) {
        return [sizes](Model& m) { m.sizes = sizes; };
    };
    const auto channels = [](int dim) { return [dim](Model& m) { m.header[0] = dim; }; };
    const auto mean = [](const std::string& text) {
        return [text](Model& m) { m.mean_line = text; };
    };
    const auto rev_var = [](const std::string& text) {
        return [text](Model& m) { m.rev_var_line = text; };
    };
    const std::pair<std::function<void(Model&)>, std::string> cases[] = {
        {mean("meanvector 26\n"), "failed to read meanVector head\n"},
        {mean("\n"), "failed to read meanVector head\n"},
        {mean(std::string(900, 'm') + " 26\n"), "failed to read meanVector head\n"},
        {mean("meanvec 39\n"), "error:meanVector Dim:39 _feat_dim:26 not equal\n\n"},
        {mean("meanvec\n"), "error:meanVector Dim:-1 _feat_dim:26 not equal\n\n"},
        {rev_var("meanvec 26\n"), "failed to read revVarVector head\n"},
        {rev_var("revvarvec 25\n"), "error:revVarVector Dim:25 _feat_dim:26 not equal\n\n"},
        {[](Model& m) { m.count_line = "28\n"; }, "corrupted net model file[PATH]\n"},
        {[](Model& m) { m.layer_number = 3; }, "corrupted net model file[PATH]\n"},
        {channels(-1), "failed to read meanVector\n"},
        {channels(INT_MAX), "failed to read meanVector\n"},
        {channels((1 << 30) + 1), "failed to read meanVector\n"},  // times 4 is 4 in 32 bits
        {layers({26, -1}), block(0)},
        {layers({-1, 26}), block(0)},
        {layers({26, 1, INT_MAX}), block(1)},
        {layers({INT_MAX, INT_MAX}), block(0)},
        {layers({1, 1 << 14, 127}), block(1)},  // too many are missing
        {layers({-5}), "DNN init memory new failure maxlayerSize:-5!\n\n"},
    };
    const Floats values(64, 0.0F);
    float out[32] = {};
    for (const auto& wrong : cases) {
        Model model = test::random_model({26, 1});
        wrong.first(model);
        const Loaded loaded = load(model.bytes());
        EXPECT_EQ(loaded.log, wrong.second);
        EXPECT_EQ(loaded.net->getState(), 1) << wrong.second;
        EXPECT_EQ(loaded.net->forward(values.data(), 26, out), 0);  // inert
        if (loaded.net->_layer_size != nullptr) {
            printed([&] { loaded.net->set_network(values.data(), 27); });
        }
    }
    EXPECT_EQ(printed([] { EXPECT_EQ(DNN(nullptr, "/nowhere.bin").getState(), 1); }),
              kPrefix + "failed to open dnn model file[/nowhere.bin]\n");
    // Whether there is memory for 2^31 - 1 parameters depends on the machine.
    Model model = test::random_model({26, 1});
    model.count_line = "99999999999999999999\n";
    const Loaded huge = load(model.bytes());
    EXPECT_EQ(huge.net->getState(), 1);
    EXPECT_TRUE(huge.log == "corrupted net model file[PATH]\n" ||
                huge.log == "allocate memory[2147483647] for net_buf\n");
}

TEST(ModelFileDeathTest, PreconditionsEndTheProcess) {
    testing::FLAGS_gtest_death_test_style = "fast";
    Model model = test::random_model({2, 1});
    const TempFile ends_early(model.text());
    EXPECT_DEATH(DNN(nullptr, ends_early.path()), "_layer_number > 0");
    for (const char* count : {"0\n", "many\n"}) {
        model.count_line = count;
        const TempFile file(model.bytes());
        EXPECT_DEATH(DNN(nullptr, file.path()), "flt_number > 0");
    }
    const Loaded failed = load("");
    int sizes[] = {2, 1};
    EXPECT_DEATH(failed.net->set_topology(0, sizes), "layer_num > 0");
    EXPECT_DEATH(failed.net->set_topology(2, nullptr), "layer_size != NULL");
    EXPECT_DEATH(failed.net->set_network(nullptr, 0), "`_layer_size'");
}

}  // namespace
