#!/usr/bin/perl
# Sends one OPTIONS with Perl's Net::SIP over PROTO (udp|tcp) to
# 127.0.0.1:PORT and checks the reply: status 200, the request's Call-ID,
# CSeq and From tag back unchanged, and a tag on the To. Prints the reply;
# exits 0 when every check held, 1 with the failed checks otherwise.
#   usage: net-sip-options.pl udp|tcp PORT
use strict;
use warnings;
use IO::Socket::INET;
use Net::SIP;

my ($proto, $port) = @ARGV;
die "usage: $0 udp|tcp PORT\n" unless defined $port && $proto =~ /^(udp|tcp)$/;

# The leg gets a socket on a free port of its own: left to itself Net::SIP
# binds 5060, which may be taken, and a Via without a port means 5060.
my $sock = $proto eq 'udp'
    ? IO::Socket::INET->new(Proto => 'udp', LocalAddr => '127.0.0.1', LocalPort => 0)
    : IO::Socket::INET->new(Proto => 'tcp', LocalAddr => '127.0.0.1', LocalPort => 0,
                            Listen => 10, ReuseAddr => 1);
die "cannot open a $proto socket: $!\n" unless $sock;
my $leg = Net::SIP::Leg->new(sock => $sock, dst => "127.0.0.1:$port");
my $ua = Net::SIP::Simple->new(from => 'sip:net-sip@127.0.0.1', leg => $leg);

my $callid = "net-sip-$$-" . time() . '@127.0.0.1';
my $from_tag = "netsip$$";
my ($done, $code, $reply);
$ua->{endpoint}->new_request('OPTIONS',
    { from => "<sip:net-sip\@127.0.0.1>;tag=$from_tag", to => "sip:hv\@127.0.0.1:$port",
      callid => $callid, cseq => 4710 },
    sub {
        my (undef, undef, $errno, $status, $packet) = @_;
        ($code, $reply) = ($errno ? "error $errno" : $status, $packet);
        $done = 1;
    },
    undef, 'max-forwards' => 70);
$ua->loop(10, \$done);

die "no reply within 10 s\n" unless $done;
die "no reply: $code\n" unless defined $reply;
print $reply->as_string;

my @failed;
my $check = sub {
    my ($what, $got, $ok) = @_;
    push @failed, "$what: " . ($got // '(none)') unless defined $got && $ok;
};
$check->('status', $code, $code eq '200');
$check->('Call-ID', scalar $reply->get_header('call-id'), $reply->get_header('call-id') eq $callid);
$check->('CSeq', scalar $reply->get_header('cseq'), $reply->get_header('cseq') eq '4711 OPTIONS');
my $to = $reply->get_header('to') // '';
$check->('To tag', $to, $to =~ /;\s*tag=[^;\s]+/);
my $from = $reply->get_header('from') // '';
$check->('From tag', $from, $from =~ /;\s*tag=\Q$from_tag\E(?:;|\z)/);
if (@failed) {
    print STDERR "net-sip-options.pl: $_\n" for @failed;
    exit 1;
}
print "net-sip-options.pl: 200, Call-ID, CSeq 4711 OPTIONS, From tag and To tag as expected\n";
exit 0;
