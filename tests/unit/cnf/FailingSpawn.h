#pragma once

/// While it lives, starting a program ends in an exception that is no std::exception.
class FailingSpawn {
  public:
    FailingSpawn();
    FailingSpawn(const FailingSpawn&) = delete;
    FailingSpawn& operator=(const FailingSpawn&) = delete;
    ~FailingSpawn();
};
