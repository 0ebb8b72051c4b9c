#pragma once

#include "platform/Error.h"

#include <optional>
#include <utility>

// The result of background work handed to the main thread by value: a value or an error.
template <typename T>
struct Outcome
{
    std::optional<T> value;
    std::optional<Error> error;
};

// Runs work() and keeps what it returns, or the Error it throws.
template <typename Work>
auto attempt(Work work) -> Outcome<decltype(work())>
{
    Outcome<decltype(work())> outcome;
    try {
        outcome.value = work();
    } catch (const Error &error) {
        outcome.error = error;
    }
    return outcome;
}
