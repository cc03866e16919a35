#include <gtest/gtest.h>

#include "ImagesLeftBehind.h"

namespace {

constexpr uint32_t kCamera = 0x7F00000B;
constexpr uint32_t kAnother = 0x7F00000C;

ImageInHand Image() {
    ImageInHand image;
    image.record.emplace_back();
    image.memory = std::make_unique<unsigned char[]>(16);
    return image;
}

class ImagesLeftBehindTest : public testing::Test {
protected:
    // Keeps an image; its address.
    const void* Keep(uint32_t ip, uint8_t stream) {
        ImageInHand image = Image();
        const void* address = &image.record.front();
        images.Keep(ip, stream, std::move(image));
        return address;
    }

    ImagesLeftBehind images;
};

TEST_F(ImagesLeftBehindTest, AnImageIsGivenBackOnceByItsAddress) {
    const void* first = Keep(kCamera, 0);
    const void* second = Keep(kCamera, 1);
    EXPECT_TRUE(images.GiveBack(first));
    EXPECT_FALSE(images.GiveBack(first));
    EXPECT_TRUE(images.GiveBack(second));
}

TEST_F(ImagesLeftBehindTest, WhatWasNeverKeptIsNotTaken) {
    const int other = 0;
    EXPECT_FALSE(images.GiveBack(&other));
    EXPECT_FALSE(images.GiveBack(nullptr));
    images.Keep(kCamera, 0, {});
    EXPECT_FALSE(images.GiveBack(nullptr));
}

TEST_F(ImagesLeftBehindTest, TheNextImageOfAStreamTakesThePlaceOfTheLast) {
    const void* last = Keep(kCamera, 0);
    const void* of_another = Keep(kAnother, 0);
    const void* next = Keep(kCamera, 0);
    EXPECT_FALSE(images.GiveBack(last));
    EXPECT_TRUE(images.GiveBack(next));
    EXPECT_TRUE(images.GiveBack(of_another));
}

TEST_F(ImagesLeftBehindTest, ACameraIsForgottenWithAllItsStreams) {
    const void* first = Keep(kCamera, 0);
    const void* second = Keep(kCamera, 1);
    const void* of_another = Keep(kAnother, 0);
    images.Forget(kCamera);
    EXPECT_FALSE(images.GiveBack(first));
    EXPECT_FALSE(images.GiveBack(second));
    EXPECT_TRUE(images.GiveBack(of_another));
}

}  // namespace
