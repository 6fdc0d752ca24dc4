extern "C" int orvexSymbolThatNobodyHas();
extern "C" __attribute__((visibility("default"))) int orvexBroken() {
    return orvexSymbolThatNobodyHas();
}
