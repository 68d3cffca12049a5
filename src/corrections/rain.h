// "rain": removal of isolated impulse samples by a two-class noise model.
// Every sample is either photon noise around its 3 × 3 median (a Poisson
// count scaled by the gain G) or an impulse uniform over the image's
// effective grey levels; G and the noise prior are estimated by
// expectation-maximisation on a sparse grid, and every sample whose impulse
// posterior beats its noise posterior becomes its median.
#pragma once

#include <cstdint>

#include "corrections/filter_class.h"

namespace krf {

class RainParametersClass : public FilterParametersClass {
public:
    RainParametersClass() { SetDefaults(); }
    void SetDefaults() override {
        G0 = 0.2;
        PPoiss0 = 0.98;
        EstimationEnabled = true;
    }

    double G0 = 0.2;
    double PPoiss0 = 0.98;
    bool EstimationEnabled = true;
};

class RainClass : public FilterClass {
public:
    int Init(unsigned short** image_rows, int nLevels, int nRows, int nCols, const int* first,
             const int* length) override;
    int Release() override;
    // Corrects the bound image in place; 363500 when params is not a
    // RainParametersClass. The last line of a run goes to standard output.
    int Apply(FilterParametersClass* params) override;

    // The estimated model, readable after Apply.
    float gain() const noexcept { return G; }
    float impulse_prior() const noexcept { return PImp; }

private:
    int count_valid_levels();
    int take_medians();
    int compute_deviations(std::int64_t* inside);
    float negative_log_likelihood();
    void estimate_parameters(double g0, double ppoiss0);
    void set_noise_prior(double ppoiss);

    float** Values = nullptr;
    float** Median = nullptr;
    float** HalfDev = nullptr;
    float** Stirling = nullptr;
    float** Mixture = nullptr;
    float** Likelihood = nullptr;
    float InvLevels = 0;
    float PImp = 0;
    float PPoiss = 0;
    float G = 0;
    float PExp = 0;
};

// The "rain" request on an image corrected in place: inverts it, processes
// rows 20 ... height - 21 from column 250 to width - 101, inverts it back.
// Returns 0, or an allocation code: 1007100 with the image untouched when the
// ranges could not be obtained, and with the image left inverted when the
// filter's work memory could not (1007100, 1007160, 1007210).
int rain(Rows image, int height, int width, int white, double g0, double ppoiss0) noexcept;

}  // namespace krf
