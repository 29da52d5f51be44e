// A switch that needs a library of its own.
extern "C" bool AnswerOfNeeded();
extern "C" __attribute__((visibility("default"))) bool SW_QueryInterface(int /*identifier*/, void** /*interface*/) {
  return AnswerOfNeeded();
}
