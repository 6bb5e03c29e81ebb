// Until the first sources of this layer land.
namespace {}
