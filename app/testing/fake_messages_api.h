// A stand-in for Anthropic's Messages API on 127.0.0.1, so no test reaches the
// real network: HTTP/1.1, one request per connection; it keeps what it was
// sent and answers with the canned reply. It answers on the thread that made
// it, inside whatever event loop that thread runs (the assistant's own wait
// included).
#pragma once

#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

namespace orvel::app::testing {

class FakeApi {
 public:
  FakeApi() {
    server_.listen(QHostAddress::LocalHost, 0);
    QObject::connect(&server_, &QTcpServer::newConnection, [this] {
      while (QTcpSocket* socket = server_.nextPendingConnection()) serve(socket);
    });
  }
  std::string baseURL() const { return "http://127.0.0.1:" + std::to_string(server_.serverPort()); }

  int status = 200;
  std::string reply;
  bool silent = false;     // never answer
  std::string redirectTo;  // answer 307 with this Location instead
  bool trickle = false;    // send the headers, then one byte of the body every 100 ms

  int requests = 0;
  std::string requestLine;
  std::map<std::string, std::string> headers;  // names lower-cased
  std::string body;

  void replyText(const std::string& text) {
    reply = nlohmann::json{{"content", nlohmann::json::array({{{"type", "text"}, {"text", text}}})}}
                .dump();
  }

 private:
  void serve(QTcpSocket* socket) {
    auto buffer = std::make_shared<QByteArray>();
    QObject::connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    QObject::connect(socket, &QTcpSocket::readyRead, socket, [this, socket, buffer] {
      buffer->append(socket->readAll());
      const qsizetype end = buffer->indexOf("\r\n\r\n");
      if (end < 0) return;
      std::map<std::string, std::string> seen;
      const QList<QByteArray> lines = buffer->left(end).split('\n');
      for (qsizetype i = 1; i < lines.size(); ++i) {
        const qsizetype colon = lines[i].indexOf(':');
        if (colon > 0)
          seen[lines[i].left(colon).trimmed().toLower().toStdString()] =
              lines[i].mid(colon + 1).trimmed().toStdString();
      }
      const qsizetype length =
          std::stoll(seen.count("content-length") ? seen["content-length"] : "0");
      if (buffer->size() < end + 4 + length) return;
      ++requests;
      requestLine = lines.front().trimmed().toStdString();
      headers = seen;
      body = buffer->mid(end + 4, length).toStdString();
      if (silent) return;
      if (!redirectTo.empty()) {
        const std::string response = "HTTP/1.1 307 Elsewhere\r\nLocation: " + redirectTo +
                                     "\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
        socket->write(response.data(), static_cast<qint64>(response.size()));
        socket->disconnectFromHost();
        return;
      }
      const std::string head = "HTTP/1.1 " + std::to_string(status) +
                               " Canned\r\nContent-Type: application/json\r\nContent-Length: " +
                               std::to_string(reply.size()) + "\r\nConnection: close\r\n\r\n";
      if (trickle) {
        socket->write(head.data(), static_cast<qint64>(head.size()));
        auto* timer = new QTimer(socket);
        auto sent = std::make_shared<size_t>(0);
        QObject::connect(timer, &QTimer::timeout, socket, [this, socket, sent] {
          if (*sent < reply.size()) socket->write(reply.data() + (*sent)++, 1);
        });
        timer->start(100);
        return;
      }
      const std::string response = head + reply;
      socket->write(response.data(), static_cast<qint64>(response.size()));
      socket->disconnectFromHost();
    });
  }

  QTcpServer server_;
};

}  // namespace orvel::app::testing
