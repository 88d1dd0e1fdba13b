// A part of the daemon's day, in a file of its own.
#pragma once

class Scene {
 public:
  Scene() = default;
  Scene(const Scene&) = delete;
  Scene& operator=(const Scene&) = delete;
  virtual ~Scene() = default;

  // Puts the scene on the loop.
  virtual bool start() = 0;
  // Whether all that it has to show was shown.
  virtual bool done() const = 0;
};
