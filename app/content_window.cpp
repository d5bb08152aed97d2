#include "content_window.h"

#include "content_view.h"

#include <QVBoxLayout>

using namespace Qt::StringLiterals;

namespace tellwyn {

bool contentWindowRequested() {
    return qEnvironmentVariable("TELLWYN_CONTENT_WINDOW") == u"1"_s;
}

std::unique_ptr<QWidget> openContentWindow(ServerManager& serverManager, Preferences& preferences) {
    auto window = std::make_unique<QWidget>();
    window->setObjectName(u"contentWindow"_s);
    window->setWindowTitle(u"TellwynAgent"_s);
    auto* layout = new QVBoxLayout(window.get());
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(new ContentView(serverManager, window.get(), preferences));
    window->resize(800, 600);
    window->show();
    return window;
}

} // namespace tellwyn
