# A backup of the server "office" every night. Each further server is a copy of this under another name: its own volume,
# variable and time. The image is that of packaging/examples/containers/Containerfile.
#     nomad var put nomad/jobs/vondral-office passphrase=@FILE
#     nomad job run nomad.hcl
job "vondral-office" {
  type = "batch"

  periodic {
    crons            = ["0 2 * * *"]
    time_zone        = "Europe/Berlin"
    prohibit_overlap = true
  }

  group "nightly" {
    # A host or CSI volume, registered under this name.
    volume "nights" {
      type            = "host"
      source          = "vondral-office"
      access_mode     = "single-node-writer"
      attachment_mode = "file-system"
    }

    # The run itself tries again what it missed.
    restart {
      attempts = 0
      mode     = "fail"
    }
    reschedule {
      attempts  = 0
      unlimited = false
    }

    task "run" {
      driver = "docker"
      user   = "10001:10001"

      # On SIGTERM the current object is completed first. The client's max_kill_timeout must allow this.
      kill_signal  = "SIGTERM"
      kill_timeout = "1h"

      config {
        image           = "registry.example.org/vondral:0.1.0"
        command         = "/bin/sh"
        args            = ["/local/run"]
        readonly_rootfs = true
        cap_drop        = ["ALL"]
        security_opt    = ["no-new-privileges"]
        volumes         = ["local/office.toml:/etc/vondral/office.toml:ro"]
      }

      env {
        CREDENTIALS_DIRECTORY = "${NOMAD_SECRETS_DIR}"
      }

      # 0 is good, and so is 1: as many files are missing as the configuration tolerates.
      template {
        destination = "local/run"
        data        = <<-END
          trap 'kill -TERM "$run"' TERM
          vondral-nightly run office & run=$!
          while status=0; wait "$run" || status=$?; kill -0 "$run" 2>/dev/null; do :; done
          [ "$status" -le 1 ]
        END
      }

      template {
        destination = "local/office.toml"
        data        = <<-END
          server = "as400.example.org"
          login = "BACKUP"
          passphrase = "credential:passphrase"
          timezone = "Europe/Berlin"
        END
      }

      template {
        destination = "secrets/passphrase"
        uid         = 10001
        gid         = 10001
        perms       = "0400"
        data        = "{{ with nomadVar \"nomad/jobs/vondral-office\" }}{{ .passphrase }}{{ end }}\n"
      }

      volume_mount {
        volume      = "nights"
        destination = "/var/lib/vondral/office"
      }

      resources {
        cpu    = 500
        memory = 256
      }
    }
  }
}
