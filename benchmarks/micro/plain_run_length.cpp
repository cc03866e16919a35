#include "plain_run_length.h"

int DecodePlainly(uint8_t* output, const uint8_t* input, uint32_t output_size,
                  uint32_t input_size) {
    uint32_t produced = 0;
    uint32_t consumed = 0;
    while (consumed < input_size) {
        const uint8_t value = input[consumed];
        if (value == 1 || value == 2) return value;
        if (output_size < produced + 1) return 12;
        output[produced++] = value;
        uint32_t run = 0;
        uint32_t token = 1;
        if (value == 0) {
            if (input_size <= consumed + 2) return 4;
            run = input[consumed + 1] | uint32_t{input[consumed + 2]} << 8;
            token = 3;
        } else if (value == 0xFF) {
            if (input_size <= consumed + 1) return 9;
            run = input[consumed + 1];
            token = 2;
        }
        consumed += token;
        if (input_size <= consumed) return 13;
        if (output_size - produced < run) return 7;
        uint8_t* rest = output + produced;
        for (uint32_t i = 0; i < run; ++i)
            rest[i] = value;
        produced += run;
    }
    return 0;
}
