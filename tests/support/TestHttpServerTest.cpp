#include "common/TestHttpServer.h"

#include <QTcpSocket>

#include <gtest/gtest.h>

// Later tests lean on the server answering pipelined requests in order and refusing garbage cleanly.
TEST(TestHttpServer, PipelinedRequestsThenGarbage)
{
    TestHttpServer server([](const TestHttpServer::Request &request) {
        return TestHttpServer::Reply::text(200, request.path + ':' + request.body);
    });
    QTcpSocket socket;
    socket.connectToHost(QStringLiteral("127.0.0.1"), server.port());
    ASSERT_TRUE(socket.waitForConnected(5000));
    socket.write(
        "GET /one?x=1 HTTP/1.1\r\nHost: a\r\n\r\n"
        "POST /two HTTP/1.1\r\nContent-Type: application/x-www-form-urlencoded\r\nContent-Length: 9\r\n\r\n"
        "k=a+b%21&"
        "NOT HTTP\r\n\r\n");
    QByteArray received;
    while (socket.state() == QAbstractSocket::ConnectedState && socket.waitForReadyRead(5000))
        received += socket.readAll();
    received += socket.readAll();

    const qsizetype one = received.indexOf("\r\n\r\n/one:");
    const qsizetype two = received.indexOf("\r\n\r\n/two:k=a+b%21&");
    const qsizetype refused = received.indexOf("HTTP/1.1 400 Bad Request");
    EXPECT_GE(one, 0);
    EXPECT_GT(two, one);
    EXPECT_GT(refused, two);

    const QList<TestHttpServer::Request> requests = server.requests();
    ASSERT_EQ(requests.size(), 2);
    EXPECT_EQ(requests[0].form.value(QStringLiteral("x")), "1");
    EXPECT_EQ(requests[1].form.value(QStringLiteral("k")), "a b!");
    EXPECT_EQ(requests[0].connection, requests[1].connection);
    EXPECT_TRUE(server.waitForOpenConnections(0));
}
